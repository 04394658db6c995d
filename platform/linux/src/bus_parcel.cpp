// parcel  := data:ay objects:a(uyst) descriptors:ah
// object  := offset:u kind:y owner:s number:t
// kind    := 0 an object of the sender's (number is its id)
//          | 1 an object of `owner`, or a dead one when that is empty
//          | 2 an object of the receiver's
//          | 3 a descriptor (number is its index)
// Tested by tests/platform/contract_test.cpp.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include "platform/linux/src/bus.h"
#include "platform/linux/src/bus_names.h"
#include "platform/linux/src/parcel_access.h"

namespace orb_platform {

namespace {

using android::IBinder;
using android::Parcel;
using android::sp;

enum Kind : uint8_t { kSenders = 0, kThirdParty = 1, kReceivers = 2, kDescriptor = 3 };

// Gives the proxy the level that follows the flat object at `offset`. Only the owner's
// level is believed; another peer could make our calls fail.
void TakeStability(const Parcel& parcel, size_t offset, IBinder* proxy) {
  int32_t level = 0;
  const size_t at = offset + kFlatObjectBytes;
  if (at + sizeof level > parcel.dataSize()) return;
  memcpy(&level, parcel.data() + at, sizeof level);
  proxy->remoteBinder()->setStability(level);
}

android::status_t StatusOfError(const sd_bus_message* error) {
  const sd_bus_error* const e = sd_bus_message_get_error(const_cast<sd_bus_message*>(error));
  for (const char* dead : {kErrorNoObject, SD_BUS_ERROR_NO_REPLY, SD_BUS_ERROR_SERVICE_UNKNOWN,
                           SD_BUS_ERROR_NAME_HAS_NO_OWNER, SD_BUS_ERROR_DISCONNECTED}) {
    if (sd_bus_error_has_name(e, dead) > 0) return android::DEAD_OBJECT;
  }
  if (sd_bus_error_has_name(e, SD_BUS_ERROR_ACCESS_DENIED) > 0) return android::PERMISSION_DENIED;
  return android::FAILED_TRANSACTION;
}

}  // namespace

// Copies the bytes and blanks the flat objects, which hold addresses of this process.
// Empty for a parcel without objects.
std::vector<uint8_t> Bus::Scrub(const Parcel& parcel) {
  std::vector<uint8_t> bytes;
  if (ParcelAccess::Count(parcel) == 0) return bytes;
  bytes.assign(parcel.data(), parcel.data() + parcel.dataSize());
  for (size_t i = 0; i < ParcelAccess::Count(parcel); i++) {
    memset(bytes.data() + ParcelAccess::At(parcel, i).offset, 0, kFlatObjectBytes);
  }
  return bytes;
}

bool Bus::AppendObject(sd_bus_message* message, const Parcel& parcel, size_t index,
                       uint32_t* descriptors, const std::string& peer) {
  const ParcelAccess::View object = ParcelAccess::At(parcel, index);
  Kind kind = kDescriptor;
  std::string owner;
  uint64_t number = 0;
  if (object.fd >= 0) {
    number = (*descriptors)++;
  } else {
    sp<IBinder> binder = object.binder;
    android::BpBinder* const proxy = binder->remoteBinder();
    const auto* const target =
        proxy != nullptr ? dynamic_cast<const BusTarget*>(proxy->target().get()) : nullptr;
    if (proxy != nullptr && target == nullptr) binder = proxy->target()->LocalObject();
    if (target == nullptr) {
      kind = kSenders;
      number = ExportTo(sp<android::BBinder>(binder->localBinder()), peer);
    } else if (target->connection != connection_) {
      kind = kThirdParty;
    } else if (target->peer == peer) {
      kind = kReceivers;
      number = target->id;
    } else {
      kind = kThirdParty;
      owner = target->peer;
      number = target->id;
      // Tells the owner first, so that this arrives before the new holder's Release.
      const BusMessage retain = NewCall(owner.c_str(), kRootPath, kInterface, "Retain");
      if (retain == nullptr) return false;
      sd_bus_message_append(retain.get(), "ts", number, peer.c_str());
      sd_bus_message_set_expect_reply(retain.get(), 0);
      Send(retain);
    }
  }
  return sd_bus_message_append(message, "(uyst)", static_cast<uint32_t>(object.offset), kind,
                               owner.c_str(), number) >= 0;
}

bool Bus::AppendParcel(sd_bus_message* message, const Parcel& parcel,
                       const std::vector<uint8_t>& scrubbed, const std::string& peer) {
  const uint8_t* const bytes = scrubbed.empty() ? parcel.data() : scrubbed.data();
  bool ok = sd_bus_message_append_array(message, 'y', bytes, parcel.dataSize()) >= 0 &&
            sd_bus_message_open_container(message, 'a', "(uyst)") >= 0;
  uint32_t descriptors = 0;
  const size_t count = ParcelAccess::Count(parcel);
  for (size_t i = 0; ok && i < count; i++) {
    ok = AppendObject(message, parcel, i, &descriptors, peer);
  }
  ok = ok && sd_bus_message_close_container(message) >= 0 &&
       sd_bus_message_open_container(message, 'a', "h") >= 0;
  for (size_t i = 0; ok && i < count; i++) {
    const int fd = ParcelAccess::At(parcel, i).fd;
    if (fd >= 0) ok = sd_bus_message_append(message, "h", fd) >= 0;
  }
  return ok && sd_bus_message_close_container(message) >= 0;
}

// Every object occupies a flat object in the data, so the data's size bounds the number of
// objects and descriptors.
android::status_t Bus::ReadObjects(sd_bus_message* message, size_t bytes, WireObjects* out) {
  const size_t most = bytes / kFlatObjectBytes;
  WireObject wire{};
  const char* owner = nullptr;
  if (sd_bus_message_enter_container(message, 'a', "(uyst)") < 0) return android::BAD_TYPE;
  while (sd_bus_message_read(message, "(uyst)", &wire.offset, &wire.kind, &owner, &wire.number) >
         0) {
    const bool third = wire.kind == kThirdParty && *owner != 0;
    if (out->wires.size() == most || (third && !IsUniqueName(owner))) return android::BAD_TYPE;
    wire.owner = third ? owner : "";
    out->wires.push_back(wire);
  }
  sd_bus_message_exit_container(message);
  int fd = -1;
  if (sd_bus_message_enter_container(message, 'a', "h") < 0) return android::BAD_TYPE;
  while (sd_bus_message_read(message, "h", &fd) > 0) {
    if (out->fds.size() == most) return android::BAD_TYPE;
    out->fds.push_back(fd);
  }
  return android::OK;
}

// A peer's bytes are not trusted: the list alone says what each object is. A parcel with
// an object at a place that does not fit is refused.
android::status_t Bus::BuildParcel(const WireObjects& objects, const void* data, size_t bytes,
                                   const Caller& sender, Parcel* out) {
  out->setData(static_cast<const uint8_t*>(data), bytes);
  for (const WireObject& object : objects.wires) {
    bool placed = false;
    if (object.kind == kDescriptor) {
      const int copy = object.number < objects.fds.size()
                           ? fcntl(objects.fds[object.number], F_DUPFD_CLOEXEC, 0)
                           : -1;
      placed = copy >= 0 && ParcelAccess::AddDescriptor(out, object.offset, copy);
    } else if (object.kind == kReceivers) {
      const sp<IBinder> own = OwnObject(object.number, sender.name);
      placed = own != nullptr && ParcelAccess::AddBinder(out, object.offset, own);
    } else {
      const std::string& from = object.kind == kSenders ? sender.name : object.owner;
      const sp<IBinder> proxy = AcquireProxy(sender.connection, from, object.number);
      placed = ParcelAccess::AddBinder(out, object.offset, proxy);
      if (placed && object.kind == kSenders) TakeStability(*out, object.offset, proxy.get());
    }
    if (!placed) return android::BAD_TYPE;
  }
  return android::OK;
}

android::status_t Bus::Transact(const BusTarget& target, uint32_t code, const Parcel& data,
                                Parcel* reply, uint32_t flags) {
  const std::vector<uint8_t> scrubbed = Scrub(data);
  UnlockedReply answer{this, {}};
  {
    orb::MutexLock lock(mutex_);
    if (bus_ == nullptr || target.connection != connection_) return android::DEAD_OBJECT;
    BusMessage call = NewCall(target.peer.c_str(), target.path.c_str(), kInterface, "Transact");
    if (call == nullptr || sd_bus_message_append(call.get(), "uu", code, flags) < 0 ||
        !AppendParcel(call.get(), data, scrubbed, target.peer)) {
      return android::FAILED_TRANSACTION;
    }
    if ((flags & IBinder::FLAG_ONEWAY) != 0) {
      sd_bus_message_set_expect_reply(call.get(), 0);
      if (Send(call)) return android::OK;
      return bus_ == nullptr ? android::DEAD_OBJECT : android::FAILED_TRANSACTION;
    }
    answer.message = CallAndWait(call);
  }
  // The call may have been the last user of some objects; their destructors run here, on
  // the caller's thread.
  DropReferences();
  if (answer.message == nullptr) return android::DEAD_OBJECT;
  Parcel ignored;
  return ReadReply(answer.message.get(), {target.connection, target.peer},
                   reply != nullptr ? reply : &ignored);
}

android::status_t Bus::ReadReply(sd_bus_message* answer, const Caller& owner, Parcel* out) {
  if (sd_bus_message_is_method_error(answer, nullptr) > 0) return StatusOfError(answer);
  int32_t result = 0;
  const void* bytes = nullptr;
  size_t count = 0;
  if (sd_bus_message_read(answer, "i", &result) <= 0 ||
      sd_bus_message_read_array(answer, 'y', &bytes, &count) < 0 || ExceedsLimit(count, false)) {
    return android::FAILED_TRANSACTION;
  }
  out->freeData();
  WireObjects objects;
  android::status_t status = ReadObjects(answer, count, &objects);
  if (status == android::OK) status = BuildParcel(objects, bytes, count, owner, out);
  return status == android::OK ? result : status;
}

}  // namespace orb_platform
