// Tested by tests/ipc/transaction_test.cpp.
#include "ipc/BpKIVManager.h"

#include "ipc/BnKIVManager.h"
#include "ipc/transaction.h"

using ::android::IBinder;
using ::android::IInterface;
using ::android::OK;
using ::android::Parcel;
using ::android::status_t;
using ::android::binder::Status;
using orb::ipc::Call;
using orb::ipc::kNoResult;

BpKIVManager::BpKIVManager(const ::android::sp<IBinder>& _aidl_impl)
    : BpInterface<IKIVManager>(_aidl_impl) {}

Status BpKIVManager::registerKIVClient(const ::KIVClientInfo& info,
                                       const ::android::sp<::IKIVCallback>& callback,
                                       ::KIVClientId* id) {
  return Call<IKIVManager>(
      remoteStrong(),
      {BnKIVManager::TRANSACTION_registerKIVClient,
       "AIDL::cpp::IKIVManager::registerKIVClient::cppClient"},
      [&](Parcel* data) {
        const status_t status = data->writeParcelable(info);
        return status != OK ? status : data->writeStrongBinder(IInterface::asBinder(callback));
      },
      [&](IKIVManager& impl) { return impl.registerKIVClient(info, callback, id); },
      [&](const Parcel& reply) { return reply.readParcelable(id); });
}

Status BpKIVManager::checkForPendingSession(const ::std::string& token) {
  return Call<IKIVManager>(
      remoteStrong(),
      {BnKIVManager::TRANSACTION_checkForPendingSession,
       "AIDL::cpp::IKIVManager::checkForPendingSession::cppClient", IBinder::FLAG_ONEWAY},
      [&](Parcel* data) { return data->writeUtf8AsUtf16(token); },
      [&](IKIVManager& impl) { return impl.checkForPendingSession(token); }, kNoResult);
}

Status BpKIVManager::deregisterKIVClient(const ::std::string& token) {
  return Call<IKIVManager>(
      remoteStrong(),
      {BnKIVManager::TRANSACTION_deregisterKIVClient,
       "AIDL::cpp::IKIVManager::deregisterKIVClient::cppClient"},
      [&](Parcel* data) { return data->writeUtf8AsUtf16(token); },
      [&](IKIVManager& impl) { return impl.deregisterKIVClient(token); }, kNoResult);
}

Status BpKIVManager::sendData(const ::std::vector<uint8_t>& data, const ::std::string& token,
                              bool* _aidl_return) {
  return Call<IKIVManager>(
      remoteStrong(),
      {BnKIVManager::TRANSACTION_sendData, "AIDL::cpp::IKIVManager::sendData::cppClient"},
      [&](Parcel* request) {
        const status_t status = request->writeByteVector(data);
        return status != OK ? status : request->writeUtf8AsUtf16(token);
      },
      [&](IKIVManager& impl) { return impl.sendData(data, token, _aidl_return); },
      [&](const Parcel& reply) { return reply.readBool(_aidl_return); });
}
