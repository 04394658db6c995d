// Tested by tests/ipc/transaction_test.cpp.
#include "ipc/BpKIVCallback.h"

#include "ipc/BnKIVCallback.h"
#include "ipc/transaction.h"

using ::android::OK;
using ::android::Parcel;
using ::android::status_t;
using ::android::binder::Status;
using orb::ipc::Call;
using orb::ipc::kNoResult;

namespace {

status_t WriteLicSn(Parcel* data, const std::string& token, int64_t campId, int64_t licSN) {
  status_t status = data->writeUtf8AsUtf16(token);
  if (status == OK) status = data->writeInt64(campId);
  if (status == OK) status = data->writeInt64(licSN);
  return status;
}

}  // namespace

BpKIVCallback::BpKIVCallback(const ::android::sp<::android::IBinder>& _aidl_impl)
    : BpInterface<IKIVCallback>(_aidl_impl) {}

Status BpKIVCallback::StartSession(const ::std::string& token, const ::KIVCampConfig& config,
                                   int32_t* _aidl_return) {
  return Call<IKIVCallback>(
      remoteStrong(),
      {BnKIVCallback::TRANSACTION_StartSession, "AIDL::cpp::IKIVCallback::StartSession::cppClient"},
      [&](Parcel* data) {
        const status_t status = data->writeUtf8AsUtf16(token);
        return status != OK ? status : data->writeParcelable(config);
      },
      [&](IKIVCallback& impl) { return impl.StartSession(token, config, _aidl_return); },
      [&](const Parcel& reply) { return reply.readInt32(_aidl_return); });
}

Status BpKIVCallback::StopSession(const ::std::string& token, int64_t campId) {
  return Call<IKIVCallback>(
      remoteStrong(),
      {BnKIVCallback::TRANSACTION_StopSession, "AIDL::cpp::IKIVCallback::StopSession::cppClient"},
      [&](Parcel* data) {
        const status_t status = data->writeUtf8AsUtf16(token);
        return status != OK ? status : data->writeInt64(campId);
      },
      [&](IKIVCallback& impl) { return impl.StopSession(token, campId); }, kNoResult);
}

Status BpKIVCallback::StartSessionforLicSN(const ::std::string& token, int64_t campId,
                                           int64_t licSN) {
  return Call<IKIVCallback>(
      remoteStrong(),
      {BnKIVCallback::TRANSACTION_StartSessionforLicSN,
       "AIDL::cpp::IKIVCallback::StartSessionforLicSN::cppClient"},
      [&](Parcel* data) { return WriteLicSn(data, token, campId, licSN); },
      [&](IKIVCallback& impl) { return impl.StartSessionforLicSN(token, campId, licSN); },
      kNoResult);
}

Status BpKIVCallback::StopSessionforLicSN(const ::std::string& token, int64_t campId,
                                          int64_t licSN) {
  return Call<IKIVCallback>(
      remoteStrong(),
      {BnKIVCallback::TRANSACTION_StopSessionforLicSN,
       "AIDL::cpp::IKIVCallback::StopSessionforLicSN::cppClient"},
      [&](Parcel* data) { return WriteLicSn(data, token, campId, licSN); },
      [&](IKIVCallback& impl) { return impl.StopSessionforLicSN(token, campId, licSN); },
      kNoResult);
}
