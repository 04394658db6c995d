// Tested by tests/ipc/transaction_test.cpp.
#include "ipc/BnKIVManager.h"

#include <binder/Stability.h>

#include "ipc/transaction.h"

using ::android::IBinder;
using ::android::OK;
using ::android::Parcel;
using ::android::status_t;
using orb::ipc::kNoResult;
using orb::ipc::Serve;

BnKIVManager::BnKIVManager() { ::android::internal::Stability::markCompilationUnit(this); }

status_t BnKIVManager::onTransact(uint32_t _aidl_code, const Parcel& _aidl_data,
                                  Parcel* _aidl_reply, uint32_t _aidl_flags) {
  switch (_aidl_code) {
    case TRANSACTION_registerKIVClient: {
      ::KIVClientInfo info;
      ::android::sp<::IKIVCallback> callback;
      ::KIVClientId id;
      return Serve(
          this, _aidl_data, _aidl_reply,
          {_aidl_code, "AIDL::cpp::IKIVManager::registerKIVClient::cppServer"},
          [&] {
            const status_t status = _aidl_data.readParcelable(&info);
            return status != OK ? status : _aidl_data.readStrongBinder(&callback);
          },
          [&] { return registerKIVClient(info, callback, &id); },
          [&] { return _aidl_reply->writeParcelable(id); });
    }
    case TRANSACTION_checkForPendingSession: {
      ::std::string token;
      return Serve(
          this, _aidl_data, _aidl_reply,
          {_aidl_code, "AIDL::cpp::IKIVManager::checkForPendingSession::cppServer",
           IBinder::FLAG_ONEWAY},
          [&] { return _aidl_data.readUtf8FromUtf16(&token); },
          [&] { return checkForPendingSession(token); }, kNoResult);
    }
    case TRANSACTION_deregisterKIVClient: {
      ::std::string token;
      return Serve(
          this, _aidl_data, _aidl_reply,
          {_aidl_code, "AIDL::cpp::IKIVManager::deregisterKIVClient::cppServer"},
          [&] { return _aidl_data.readUtf8FromUtf16(&token); },
          [&] { return deregisterKIVClient(token); }, kNoResult);
    }
    case TRANSACTION_sendData: {
      ::std::vector<uint8_t> data;
      ::std::string token;
      bool result = false;
      return Serve(
          this, _aidl_data, _aidl_reply,
          {_aidl_code, "AIDL::cpp::IKIVManager::sendData::cppServer"},
          [&] {
            const status_t status = _aidl_data.readByteVector(&data);
            return status != OK ? status : _aidl_data.readUtf8FromUtf16(&token);
          },
          [&] { return sendData(data, token, &result); },
          [&] { return _aidl_reply->writeBool(result); });
    }
    default:
      return ::android::BBinder::onTransact(_aidl_code, _aidl_data, _aidl_reply, _aidl_flags);
  }
}
