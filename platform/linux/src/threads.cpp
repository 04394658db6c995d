#include "platform/linux/src/threads.h"

#include <utility>

#include "utility/error_text.h"
#include "utility/thread.h"
#define ORB_LOG_TAG "orb_platform"
#include "utility/log.h"

namespace orb_platform {

bool StartThread(const char* name, std::function<void()> body, bool quiet) {
  orb::Thread thread;
  const int error = thread.Start(name, std::move(body));
  if (error == 0) {
    thread.Detach();
  } else if (!quiet) {
    LOGE("no thread for %s: %s", name, orb::ErrorText(error).c_str());
  }
  return error == 0;
}

}  // namespace orb_platform
