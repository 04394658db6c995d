// Tested by tests/ipc/manager_client_test.cpp.
#include "ipc/kiv_callback_impl.h"

#include <utils/String8.h>

#include <memory>

#include "ipc/kiv_aidl_client.h"
#include "ipc/routed_collector.h"
#include "utility/contained.h"
#include "utility/log.h"
#include "utility/quiet_write.h"

using ::android::status_t;
using ::android::String16;
using ::android::String8;
using ::android::Vector;
using ::android::binder::Status;

namespace {

// Empty, with an error line, for a token that names no collector.
CollectorRoutes::Pin FindCollector(const char* method, const std::string& token) {
  const std::shared_ptr<kivAIDLClient> client = kivAIDLClient::getClientInstance();
  CollectorRoutes::Pin collector =
      client != nullptr ? client->routes().Find(token) : CollectorRoutes::Pin();
  if (!collector) LOGE("%s - No entry found for token: %s", method, token.c_str());
  return collector;
}

status_t WriteDump(int fd, const Vector<String16>& args) {
  std::string text;
  CollectorRoutes& routes = kivAIDLClient::getClientInstance()->routes();
  if (args.isEmpty()) {
    for (const CollectorRoutes::Pin& collector : routes.FindAll()) {
      if (!text.empty()) text += '\n';
      text += collector->Dump();
    }
  } else if (args.size() == 2 && args[0] == String16("--token")) {
    const CollectorRoutes::Pin collector = routes.Find(String8(args[1]).c_str());
    if (!collector) return ::android::NAME_NOT_FOUND;
    text = collector->Dump();
  } else {
    return ::android::BAD_VALUE;
  }
  // No collector is pinned and no lock is held: a slow reader delays only this call.
  return -orb::QuietWrite(fd, text);
}

}  // namespace

Status KIVCallbackImpl::StartSession(const std::string& token, const KIVCampConfig& config,
                                     int32_t* _aidl_return) {
  *_aidl_return = -1;
  orb::Contained("StartSession", [&] {
    if (const auto collector = FindCollector("StartSession", token)) {
      // A start that is refused sets the campaign's id, too.
      collector->SetCampaignId(static_cast<uint64_t>(config.campId));
      *_aidl_return = collector->StartSession(config);
    }
  });
  return Status::ok();
}

Status KIVCallbackImpl::StopSession(const std::string& token, int64_t campId) {
  orb::Contained("StopSession", [&] {
    if (const auto collector = FindCollector("StopSession", token)) {
      LOGI("%s - camp stop event received, camp id - % lld  token - %s", "StopSession",
           static_cast<long long>(campId), token.c_str());
      collector->StopSession();
    }
  });
  return Status::ok();
}

Status KIVCallbackImpl::StartSessionforLicSN(const std::string& token, int64_t campId,
                                             int64_t licSN) {
  orb::Contained("StartSessionforLicSN", [&] {
    if (const auto collector = FindCollector("StartSessionforLicSN", token)) {
      LOGI("%s - camp start event received for LicSN - %llu camp id - % lld  token - %s",
           "StartSessionforLicSN", static_cast<unsigned long long>(licSN),
           static_cast<long long>(campId), token.c_str());
      collector->StartSessionForLicSN(static_cast<uint64_t>(licSN));
    }
  });
  return Status::ok();
}

Status KIVCallbackImpl::StopSessionforLicSN(const std::string& token, int64_t campId,
                                            int64_t licSN) {
  orb::Contained("StopSessionforLicSN", [&] {
    if (const auto collector = FindCollector("StopSessionforLicSN", token)) {
      LOGI("%s - camp stop event received for LicSN - %llu camp id - % lld  token - %s",
           "StopSessionforLicSN", static_cast<unsigned long long>(licSN),
           static_cast<long long>(campId), token.c_str());
      collector->StopSessionForLicSN(static_cast<uint64_t>(licSN));
    }
  });
  return Status::ok();
}

status_t KIVCallbackImpl::dump(int fd, const Vector<String16>& args) {
  return orb::Contained("dump", static_cast<status_t>(::android::NO_MEMORY),
                        [&] { return WriteDump(fd, args); });
}
