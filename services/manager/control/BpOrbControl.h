// Proxy of IOrbControl. Every method blocks until the reply. Any thread.
#pragma once

#include <string>
#include <vector>

#include "services/manager/control/IOrbControl.h"

class BpOrbControl : public ::android::BpInterface<IOrbControl> {
 public:
  explicit BpOrbControl(const ::android::sp<::android::IBinder>& _aidl_impl);
  virtual ~BpOrbControl() = default;

  ::android::binder::Status listClients(::std::vector<::ClientRecord>* _aidl_return) override;
  ::android::binder::Status startCampaign(const ::std::string& client,
                                          const ::KIVCampConfig& config,
                                          ::ControlReply* _aidl_return) override;
  ::android::binder::Status stopCampaign(const ::std::string& client,
                                         ::ControlReply* _aidl_return) override;
  ::android::binder::Status releaseCampaign(const ::std::string& client,
                                            ::ControlReply* _aidl_return) override;
  ::android::binder::Status forgetClient(const ::std::string& client, bool force,
                                         ::ControlReply* _aidl_return) override;
  ::android::binder::Status startLicSN(const ::std::string& client, int64_t licSN,
                                       ::ControlReply* _aidl_return) override;
  ::android::binder::Status stopLicSN(const ::std::string& client, int64_t licSN,
                                      ::ControlReply* _aidl_return) override;
  ::android::binder::Status dumpClient(const ::std::string& client, const ::orb::UniqueFd& fd,
                                       ::ControlReply* _aidl_return) override;
};
