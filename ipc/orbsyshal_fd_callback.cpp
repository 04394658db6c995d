// Tested by tests/ipc/hal_client_test.cpp.
#include "ipc/orbsyshal_fd_callback.h"

#include <memory>
#include <string>

#include "ipc/kiv_aidl_client.h"
#include "ipc/routed_collector.h"
#include "utility/contained.h"
#include "utility/log.h"

::ndk::ScopedAStatus OrbsyshalFDCallback::fd_write_done(int32_t fdToken, int32_t a, int32_t b,
                                                        int32_t c) {
  orb::Contained("fd_write_done", [&] {
    const uint32_t region = static_cast<uint32_t>(fdToken);
    const std::shared_ptr<kivAIDLClient> client = kivAIDLClient::getClientInstance();
    const CollectorRoutes::Pin collector =
        client != nullptr ? client->routes().FindRegion(region) : CollectorRoutes::Pin();
    if (collector) {
      collector->FdWriteDone(region, static_cast<uint32_t>(a), static_cast<uint32_t>(b), c,
                             hal_died_);
    } else {
      LOGE("%s - No entry found for fd_token: %s", "fd_write_done", std::to_string(region).c_str());
    }
  });
  return ::ndk::ScopedAStatus::ok();
}
