// How orbctl and orb-managerd talk: one transaction, with a message each way.
//
// request := interface_token ControlRequest:bytes
// reply   := status [ ControlReply:descriptor ]        no descriptor after an exception
//
// The reply is sealed memory, so that a list of clients may be longer than the bus
// carries. A request has to fit into a transaction, as its campaign has to later.
#pragma once

#include <binder/Binder.h>
#include <binder/IBinder.h>
#include <binder/Parcel.h>
#include <binder/Status.h>
#include <utils/String16.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>

#include "proto/control.pb.h"
#include "utility/unique_fd.h"

namespace orb::manager {

inline constexpr const char* kControlServiceName = "orb.manager.control";
inline constexpr size_t kMaxReplyBytes = size_t{64} << 20;

inline constexpr uint32_t kControlCall = android::IBinder::FIRST_CALL_TRANSACTION;

// The name that requests carry.
const android::String16& ControlDescriptor();

// Asks the manager and blocks for its reply. Any thread. BAD_VALUE for a reply that is
// none.
android::binder::Status CallControl(const android::sp<android::IBinder>& manager,
                                    const ControlRequest& request, ControlReply* reply);

// Serves one request, at the manager's end: `handle` gets what could be read. For
// onTransact, after the caller was checked.
android::status_t ServeControl(const android::sp<android::IBinder>& service,
                               const android::Parcel& data, android::Parcel* reply,
                               const std::function<ControlReply(const ControlRequest&)>& handle);

// Memory with these bytes that can no longer change; not ok, with errno set, when there
// is none.
UniqueFd SealBytes(std::span<const uint8_t> bytes);

}  // namespace orb::manager
