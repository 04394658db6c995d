// Tested by tests/services/control_test.cpp.
#include "services/manager/control/control_call.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "ipc/transaction.h"
#include "utility/checked.h"

namespace orb::manager {
namespace {

using android::BAD_VALUE;
using android::OK;
using android::Parcel;
using android::status_t;
using android::binder::Status;

// What ipc::Call asks of an interface.
struct Control {
  static const android::String16 descriptor;
  static Control* getDefaultImpl() { return nullptr; }
};
const android::String16 Control::descriptor("orb.manager.IOrbControl");

// Only sealed memory counts: reading it never waits.
status_t ReadReply(int fd, ControlReply* reply) {
  constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_WRITE;
  const int seals = fcntl(fd, F_GET_SEALS);
  struct stat info {};
  if (seals < 0 || (seals & kSeals) != kSeals || fstat(fd, &info) != 0 ||
      static_cast<uint64_t>(info.st_size) > kMaxReplyBytes) {
    return BAD_VALUE;
  }
  std::string bytes(static_cast<size_t>(info.st_size), '\0');
  size_t have_bytes = 0;
  while (have_bytes < bytes.size()) {
    const ssize_t got = pread(fd, bytes.data() + have_bytes, bytes.size() - have_bytes,
                              static_cast<off_t>(have_bytes));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return BAD_VALUE;
    have_bytes += static_cast<size_t>(got);
  }
  return reply->ParseFromString(bytes) ? OK : BAD_VALUE;
}

}  // namespace

const android::String16& ControlDescriptor() { return Control::descriptor; }

UniqueFd SealBytes(std::span<const uint8_t> bytes) {
  UniqueFd memory(memfd_create("orb-control", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE;
  const bool sealed =
      memory.ok() && ftruncate(memory.get(), static_cast<off_t>(bytes.size())) == 0 &&
      pwrite(memory.get(), bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()) &&
      fcntl(memory.get(), F_ADD_SEALS, kSeals) == 0;
  return sealed ? std::move(memory) : UniqueFd();
}

Status CallControl(const android::sp<android::IBinder>& manager, const ControlRequest& request,
                   ControlReply* reply) {
  const std::string bytes = request.SerializeAsString();
  return ipc::Call<Control>(
      manager, {kControlCall, "IOrbControl::call::cppClient"},
      [&](Parcel* data) {
        return data->writeByteVector(std::vector<uint8_t>(bytes.begin(), bytes.end()));
      },
      [](const Control&) { return Status(); },
      [&](const Parcel& in) -> status_t {
        UniqueFd memory;
        const status_t status = in.readUniqueFileDescriptor(&memory);
        return status == OK ? ReadReply(memory.get(), reply) : status;
      });
}

status_t ServeControl(const android::sp<android::IBinder>& service, const Parcel& data,
                      Parcel* reply,
                      const std::function<ControlReply(const ControlRequest&)>& handle) {
  ControlRequest request;
  UniqueFd memory;
  return ipc::Serve(
      service.get(), data, reply, {kControlCall, "IOrbControl::call::cppServer"},
      [&]() -> status_t {
        std::vector<uint8_t> bytes;
        const status_t status = data.readByteVector(&bytes);
        if (status != OK) return status;
        return request.ParseFromArray(bytes.data(), CheckedCast<int>(bytes.size())) ? OK
                                                                                    : BAD_VALUE;
      },
      [&] {
        const std::string bytes = handle(request).SerializeAsString();
        memory = SealBytes({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()});
        return memory.ok() ? Status() : Status::fromStatusT(android::NO_MEMORY);
      },
      [&] { return reply->writeUniqueFileDescriptor(memory); });
}

}  // namespace orb::manager
