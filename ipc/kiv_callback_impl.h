// The manager's way to this process's collectors: routes each call by token.
#pragma once

#include <cstdint>
#include <string>

#include "ipc/BnKIVCallback.h"

// Stateless. Runs on binder threads and takes no lock of the client, so a
// manager may call while it serves a registration or de-registration. The
// status is always OK; only StartSession reports an outcome.
class KIVCallbackImpl : public BnKIVCallback {
 public:
  // The collector's result, or -1 for an unknown token.
  ::android::binder::Status StartSession(const std::string& token, const KIVCampConfig& config,
                                         int32_t* _aidl_return) override;

  // Ends the session whatever its campaign: campId is only logged.
  ::android::binder::Status StopSession(const std::string& token, int64_t campId) override;

  ::android::binder::Status StartSessionforLicSN(const std::string& token, int64_t campId,
                                                 int64_t licSN) override;

  ::android::binder::Status StopSessionforLicSN(const std::string& token, int64_t campId,
                                                int64_t licSN) override;

  // Writes what the collectors of this process say of themselves to fd, or with
  // the arguments "--token TOKEN" the one of that token: NAME_NOT_FOUND when there
  // is none, BAD_VALUE for other arguments. Blocks while fd takes nothing.
  ::android::status_t dump(int fd, const ::android::Vector<::android::String16>& args) override;
};
