// Tested by tests/integration/.
#include "services/common/service_host.h"

#include <binder/ProcessState.h>
#include <malloc.h>
#include <orb_platform/stop.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <utility>

#include "services/common/descriptor_limit.h"
#include "services/common/systemd_notice.h"
#include "utility/log.h"

namespace orb::services {
namespace {

constexpr int kUsage = 2;
constexpr std::chrono::seconds kLastCalls(2);
constexpr int kMappedBytes = 256 << 10;
constexpr int kArenas = 2;  // Each keeps memory that its threads have freed.

}  // namespace

int ParseCommandLine(CLI::App* app, int argc, char** argv) {
  app->set_version_flag("--version", std::string(ORB_VERSION));
  try {
    app->parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app->exit(error);
    const char* const name = app->get_name().c_str();
    static_cast<void>(fprintf(stderr, "%s: %s; see %s --help\n", name, error.what(), name));
    return kUsage;
  }
  return -1;
}

int CannotStart(const CLI::App& app, const Error& error) {
  static_cast<void>(fprintf(stderr, "%s: %s\n", app.get_name().c_str(), error.text.c_str()));
  return 1;
}

ServiceHost::ServiceHost() {
  sigemptyset(&signals_);
  sigaddset(&signals_, SIGTERM);
  sigaddset(&signals_, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
  static_cast<void>(signal(SIGPIPE, SIG_IGN));
  RaiseDescriptorLimit();
  // The memory of a client's large message goes back to the system once it is refused.
  // Without this the allocator would raise its threshold after the first such message, and
  // keep the memory of the next ones.
  // NOLINTBEGIN(concurrency-mt-unsafe): there is no other thread yet.
  mallopt(M_MMAP_THRESHOLD, kMappedBytes);
  mallopt(M_ARENA_MAX, kArenas);
  // NOLINTEND(concurrency-mt-unsafe)
}

void ServiceHost::Add(const std::string& name, std::function<bool()> publish,
                      std::function<bool()> is_published) {
  services_.push_back({name, std::move(publish), std::move(is_published)});
}

int ServiceHost::Run() {
  for (const Service& service : services_) {
    if (android::ProcessState::self() != nullptr && service.is_published()) {
      LOGE("%s is published by another process; stop that one first", service.name.c_str());
      return 1;
    }
  }
  SystemdNotice systemd;
  const auto seconds = std::chrono::floor<std::chrono::seconds>(systemd.interval());
  const timespec interval{seconds.count(), (systemd.interval() - seconds).count()};
  int received = -1;
  do {
    std::string trouble;
    for (Service& service : services_) {
      const std::string found = Check(&service);
      if (trouble.empty()) trouble = found;
    }
    systemd.Check(trouble);
    received = sigtimedwait(&signals_, nullptr, &interval);
  } while (received < 0);
  LOGI("ending on signal %d", received);
  systemd.Stopping();
  // A caller whose call has been carried out must hear of it: an upload that is
  // stored, but not acknowledged, counts as lost with its client.
  if (!orb_platform::StopThreadPoolBy(std::chrono::steady_clock::now() + kLastCalls)) {
    LOGW("a call still runs; ending all the same");
  }
  return 0;
}

std::string ServiceHost::Check(Service* service) {
  const android::sp<android::ProcessState> process = android::ProcessState::self();
  if (process != nullptr && service->is_published()) return {};
  if (process != nullptr) process->startThreadPool();
  if (process != nullptr && service->publish()) {
    LOGI("%s is published", service->name.c_str());
    service->reported = false;
    return {};
  }
  const char* const why = process == nullptr ? "no bus can be reached" : "the bus refuses the name";
  if (!service->reported) {
    LOGE("%s cannot be published: %s; trying again every second", service->name.c_str(), why);
    service->reported = true;
  }
  return service->name + " cannot be published: " + why;
}

void ServiceHost::Exit(int code) {
  static_cast<void>(fflush(nullptr));
  _exit(code);
}

}  // namespace orb::services
