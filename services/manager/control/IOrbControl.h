// The manager as its operators see it: which clients there are, and what they
// collect. Published under the name below.
#pragma once

#include <binder/IBinder.h>
#include <binder/IInterface.h>
#include <binder/Status.h>
#include <utils/StrongPointer.h>

#include <cstdint>
#include <string>
#include <vector>

#include "ipc/KIVCampConfig.h"
#include "services/manager/control/ClientRecord.h"
#include "services/manager/control/ControlReply.h"
#include "utility/unique_fd.h"

class IOrbControl : public ::android::IInterface {
 public:
  DECLARE_META_INTERFACE(OrbControl)

  static constexpr const char* kServiceName = "orb.manager.control";

  // All clients that ever registered, by name; `connected` tells which are there.
  virtual ::android::binder::Status listClients(::std::vector<::ClientRecord>* _aidl_return) = 0;

  // Starts the campaign on a connected client, waits for the client's result,
  // and keeps the campaign on disk when that is 0.
  virtual ::android::binder::Status startCampaign(const ::std::string& client,
                                                  const ::KIVCampConfig& config,
                                                  ::ControlReply* _aidl_return) = 0;

  // Stops the campaign and forgets it; of a client that is away it is only forgotten.
  virtual ::android::binder::Status stopCampaign(const ::std::string& client,
                                                 ::ControlReply* _aidl_return) = 0;

  // Ends the quarantine of the client's campaign, and starts it on a client that is connected.
  virtual ::android::binder::Status releaseCampaign(const ::std::string& client,
                                                    ::ControlReply* _aidl_return) = 0;

  // Forgets the client's name, id, user and campaign, for root only. One that is connected
  // is refused unless forced; then it is told to stop, and has to register anew.
  virtual ::android::binder::Status forgetClient(const ::std::string& client, bool force,
                                                 ::ControlReply* _aidl_return) = 0;

  // Starts or stops one LicSN of the campaign that runs on the client.
  virtual ::android::binder::Status startLicSN(const ::std::string& client, int64_t licSN,
                                               ::ControlReply* _aidl_return) = 0;
  virtual ::android::binder::Status stopLicSN(const ::std::string& client, int64_t licSN,
                                              ::ControlReply* _aidl_return) = 0;

  // Has the client's library describe itself as text into `fd`, which the client
  // then holds itself: an ordinary file or memory, so that it cannot be made to
  // wait. It may still write after a FAILED.
  virtual ::android::binder::Status dumpClient(const ::std::string& client,
                                               const ::orb::UniqueFd& fd,
                                               ::ControlReply* _aidl_return) = 0;
};
