#include "platform/linux/src/threads.h"

#include <pthread.h>
#include <signal.h>

#include <thread>

namespace orb_platform {

void StartThread(const char* name, std::function<void()> body) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  std::thread thread(std::move(body));
  pthread_setname_np(thread.native_handle(), name);
  thread.detach();
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

}  // namespace orb_platform
