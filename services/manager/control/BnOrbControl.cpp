// Tested by tests/integration/campaign_test.cpp.
#include "services/manager/control/BnOrbControl.h"

#include <binder/Stability.h>

#include "ipc/transaction.h"

using ::android::OK;
using ::android::Parcel;
using ::android::status_t;
using orb::ipc::Serve;

BnOrbControl::BnOrbControl() { ::android::internal::Stability::markCompilationUnit(this); }

status_t BnOrbControl::onTransact(uint32_t _aidl_code, const Parcel& _aidl_data,
                                  Parcel* _aidl_reply, uint32_t _aidl_flags) {
  ::std::string client;
  int64_t licSN = 0;
  ::ControlReply answer;
  const auto read_client = [&] { return _aidl_data.readUtf8FromUtf16(&client); };
  const auto read_client_and_lic_sn = [&] {
    const status_t status = read_client();
    return status != OK ? status : _aidl_data.readInt64(&licSN);
  };
  const auto write_answer = [&] { return _aidl_reply->writeParcelable(answer); };
  switch (_aidl_code) {
    case TRANSACTION_listClients: {
      ::std::vector<::ClientRecord> clients;
      return Serve(
          this, _aidl_data, _aidl_reply, {_aidl_code, "IOrbControl::listClients::cppServer"},
          orb::ipc::kNoResult, [&] { return listClients(&clients); },
          [&] { return _aidl_reply->writeParcelableVector(clients); });
    }
    case TRANSACTION_startCampaign: {
      ::KIVCampConfig config;
      return Serve(
          this, _aidl_data, _aidl_reply, {_aidl_code, "IOrbControl::startCampaign::cppServer"},
          [&] {
            const status_t status = read_client();
            return status != OK ? status : _aidl_data.readParcelable(&config);
          },
          [&] { return startCampaign(client, config, &answer); }, write_answer);
    }
    case TRANSACTION_stopCampaign:
      return Serve(
          this, _aidl_data, _aidl_reply, {_aidl_code, "IOrbControl::stopCampaign::cppServer"},
          read_client, [&] { return stopCampaign(client, &answer); }, write_answer);
    case TRANSACTION_startLicSN:
      return Serve(
          this, _aidl_data, _aidl_reply, {_aidl_code, "IOrbControl::startLicSN::cppServer"},
          read_client_and_lic_sn, [&] { return startLicSN(client, licSN, &answer); }, write_answer);
    case TRANSACTION_stopLicSN:
      return Serve(
          this, _aidl_data, _aidl_reply, {_aidl_code, "IOrbControl::stopLicSN::cppServer"},
          read_client_and_lic_sn, [&] { return stopLicSN(client, licSN, &answer); }, write_answer);
    case TRANSACTION_dumpClient: {
      ::orb::UniqueFd fd;
      return Serve(
          this, _aidl_data, _aidl_reply, {_aidl_code, "IOrbControl::dumpClient::cppServer"},
          [&] {
            const status_t status = read_client();
            return status != OK ? status : _aidl_data.readUniqueFileDescriptor(&fd);
          },
          [&] { return dumpClient(client, fd, &answer); }, write_answer);
    }
    case TRANSACTION_releaseCampaign:
      return Serve(
          this, _aidl_data, _aidl_reply, {_aidl_code, "IOrbControl::releaseCampaign::cppServer"},
          read_client, [&] { return releaseCampaign(client, &answer); }, write_answer);
    case TRANSACTION_forgetClient: {
      bool force = false;
      return Serve(
          this, _aidl_data, _aidl_reply, {_aidl_code, "IOrbControl::forgetClient::cppServer"},
          [&] {
            const status_t status = read_client();
            return status != OK ? status : _aidl_data.readBool(&force);
          },
          [&] { return forgetClient(client, force, &answer); }, write_answer);
    }
    default:
      return ::android::BBinder::onTransact(_aidl_code, _aidl_data, _aidl_reply, _aidl_flags);
  }
}
