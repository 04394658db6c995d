// Tested by tests/ipc/transaction_test.cpp.
#include "ipc/BnKIVCallback.h"

#include <binder/Stability.h>

#include "ipc/transaction.h"

using ::android::OK;
using ::android::Parcel;
using ::android::status_t;
using orb::ipc::kNoResult;
using orb::ipc::Serve;

namespace {

status_t ReadLicSn(const Parcel& data, std::string* token, int64_t* campId, int64_t* licSN) {
  status_t status = data.readUtf8FromUtf16(token);
  if (status == OK) status = data.readInt64(campId);
  if (status == OK) status = data.readInt64(licSN);
  return status;
}

}  // namespace

BnKIVCallback::BnKIVCallback() { ::android::internal::Stability::markCompilationUnit(this); }

status_t BnKIVCallback::onTransact(uint32_t _aidl_code, const Parcel& _aidl_data,
                                   Parcel* _aidl_reply, uint32_t _aidl_flags) {
  ::std::string token;
  int64_t campId = 0;
  int64_t licSN = 0;
  switch (_aidl_code) {
    case TRANSACTION_StartSession: {
      ::KIVCampConfig config;
      int32_t result = 0;
      return Serve(
          this, _aidl_data, _aidl_reply,
          {_aidl_code, "AIDL::cpp::IKIVCallback::StartSession::cppServer"},
          [&] {
            const status_t status = _aidl_data.readUtf8FromUtf16(&token);
            return status != OK ? status : _aidl_data.readParcelable(&config);
          },
          [&] { return StartSession(token, config, &result); },
          [&] { return _aidl_reply->writeInt32(result); });
    }
    case TRANSACTION_StopSession:
      return Serve(
          this, _aidl_data, _aidl_reply,
          {_aidl_code, "AIDL::cpp::IKIVCallback::StopSession::cppServer"},
          [&] {
            const status_t status = _aidl_data.readUtf8FromUtf16(&token);
            return status != OK ? status : _aidl_data.readInt64(&campId);
          },
          [&] { return StopSession(token, campId); }, kNoResult);
    case TRANSACTION_StartSessionforLicSN:
      return Serve(
          this, _aidl_data, _aidl_reply,
          {_aidl_code, "AIDL::cpp::IKIVCallback::StartSessionforLicSN::cppServer"},
          [&] { return ReadLicSn(_aidl_data, &token, &campId, &licSN); },
          [&] { return StartSessionforLicSN(token, campId, licSN); }, kNoResult);
    case TRANSACTION_StopSessionforLicSN:
      return Serve(
          this, _aidl_data, _aidl_reply,
          {_aidl_code, "AIDL::cpp::IKIVCallback::StopSessionforLicSN::cppServer"},
          [&] { return ReadLicSn(_aidl_data, &token, &campId, &licSN); },
          [&] { return StopSessionforLicSN(token, campId, licSN); }, kNoResult);
    default:
      return ::android::BBinder::onTransact(_aidl_code, _aidl_data, _aidl_reply, _aidl_flags);
  }
}
