// Tested by tests/integration/campaign_test.cpp.
#include "services/manager/control/BpOrbControl.h"

#include "ipc/transaction.h"
#include "services/manager/control/BnOrbControl.h"

using ::android::Parcel;
using ::android::status_t;
using ::android::binder::Status;
using orb::ipc::Call;

BpOrbControl::BpOrbControl(const ::android::sp<::android::IBinder>& _aidl_impl)
    : BpInterface<IOrbControl>(_aidl_impl) {}

Status BpOrbControl::listClients(::std::vector<::ClientRecord>* _aidl_return) {
  return Call<IOrbControl>(
      remoteStrong(),
      {BnOrbControl::TRANSACTION_listClients, "IOrbControl::listClients::cppClient"},
      orb::ipc::kNoResult, [&](IOrbControl& impl) { return impl.listClients(_aidl_return); },
      [&](const Parcel& reply) { return reply.readParcelableVector(_aidl_return); });
}

Status BpOrbControl::startCampaign(const ::std::string& client, const ::KIVCampConfig& config,
                                   ::ControlReply* _aidl_return) {
  return Call<IOrbControl>(
      remoteStrong(),
      {BnOrbControl::TRANSACTION_startCampaign, "IOrbControl::startCampaign::cppClient"},
      [&](Parcel* data) {
        const status_t status = data->writeUtf8AsUtf16(client);
        return status != ::android::OK ? status : data->writeParcelable(config);
      },
      [&](IOrbControl& impl) { return impl.startCampaign(client, config, _aidl_return); },
      [&](const Parcel& reply) { return reply.readParcelable(_aidl_return); });
}

Status BpOrbControl::stopCampaign(const ::std::string& client, ::ControlReply* _aidl_return) {
  return Call<IOrbControl>(
      remoteStrong(),
      {BnOrbControl::TRANSACTION_stopCampaign, "IOrbControl::stopCampaign::cppClient"},
      [&](Parcel* data) { return data->writeUtf8AsUtf16(client); },
      [&](IOrbControl& impl) { return impl.stopCampaign(client, _aidl_return); },
      [&](const Parcel& reply) { return reply.readParcelable(_aidl_return); });
}

Status BpOrbControl::releaseCampaign(const ::std::string& client, ::ControlReply* _aidl_return) {
  return Call<IOrbControl>(
      remoteStrong(),
      {BnOrbControl::TRANSACTION_releaseCampaign, "IOrbControl::releaseCampaign::cppClient"},
      [&](Parcel* data) { return data->writeUtf8AsUtf16(client); },
      [&](IOrbControl& impl) { return impl.releaseCampaign(client, _aidl_return); },
      [&](const Parcel& reply) { return reply.readParcelable(_aidl_return); });
}

Status BpOrbControl::forgetClient(const ::std::string& client, bool force,
                                  ::ControlReply* _aidl_return) {
  return Call<IOrbControl>(
      remoteStrong(),
      {BnOrbControl::TRANSACTION_forgetClient, "IOrbControl::forgetClient::cppClient"},
      [&](Parcel* data) {
        const status_t status = data->writeUtf8AsUtf16(client);
        return status != ::android::OK ? status : data->writeBool(force);
      },
      [&](IOrbControl& impl) { return impl.forgetClient(client, force, _aidl_return); },
      [&](const Parcel& reply) { return reply.readParcelable(_aidl_return); });
}

Status BpOrbControl::startLicSN(const ::std::string& client, int64_t licSN,
                                ::ControlReply* _aidl_return) {
  return Call<IOrbControl>(
      remoteStrong(), {BnOrbControl::TRANSACTION_startLicSN, "IOrbControl::startLicSN::cppClient"},
      [&](Parcel* data) {
        const status_t status = data->writeUtf8AsUtf16(client);
        return status != ::android::OK ? status : data->writeInt64(licSN);
      },
      [&](IOrbControl& impl) { return impl.startLicSN(client, licSN, _aidl_return); },
      [&](const Parcel& reply) { return reply.readParcelable(_aidl_return); });
}

Status BpOrbControl::stopLicSN(const ::std::string& client, int64_t licSN,
                               ::ControlReply* _aidl_return) {
  return Call<IOrbControl>(
      remoteStrong(), {BnOrbControl::TRANSACTION_stopLicSN, "IOrbControl::stopLicSN::cppClient"},
      [&](Parcel* data) {
        const status_t status = data->writeUtf8AsUtf16(client);
        return status != ::android::OK ? status : data->writeInt64(licSN);
      },
      [&](IOrbControl& impl) { return impl.stopLicSN(client, licSN, _aidl_return); },
      [&](const Parcel& reply) { return reply.readParcelable(_aidl_return); });
}

Status BpOrbControl::dumpClient(const ::std::string& client, const ::orb::UniqueFd& fd,
                                ::ControlReply* _aidl_return) {
  return Call<IOrbControl>(
      remoteStrong(), {BnOrbControl::TRANSACTION_dumpClient, "IOrbControl::dumpClient::cppClient"},
      [&](Parcel* data) {
        const status_t status = data->writeUtf8AsUtf16(client);
        return status != ::android::OK ? status : data->writeUniqueFileDescriptor(fd);
      },
      [&](IOrbControl& impl) { return impl.dumpClient(client, fd, _aidl_return); },
      [&](const Parcel& reply) { return reply.readParcelable(_aidl_return); });
}
