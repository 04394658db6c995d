// Tested by tests/services/hal_test.cpp.
#include "services/hal/hal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "serializer/header_layout.h"
#include "services/common/descriptor_limit.h"
#include "services/hal/upload_name.h"
#include "utility/log.h"

namespace orb::hal {

HalLimits HalLimits::OfProcess() {
  const size_t half = services::DescriptorsForClients() / 2;
  HalLimits limits;
  limits.queues = half;
  limits.channels = half;
  return limits;
}

Hal::Hal(std::unique_ptr<Spool> spool, std::unique_ptr<FolderOwners> owners,
         const HalLimits& limits)
    : spool_(std::move(spool)),
      owners_(std::move(owners)),
      queues_(limits.queues, limits.queue_patience, limits.is_gone),
      channels_(limits.channels),
      completions_(limits.notice_patience) {}

bool Hal::ConfigureQueue(const Caller& caller, QueueLayout queue) {
  Result<std::shared_ptr<const PayloadQueue>> opened = PayloadQueue::Open(std::move(queue));
  if (!opened.ok()) {
    LOGE("queue of %s refused: %s", caller.ToString().c_str(), opened.error().text.c_str());
    return false;
  }
  if (queues_.Put(caller, *std::move(opened))) return true;
  LOGE("queue of %s refused: too many wait to be read", caller.ToString().c_str());
  return false;
}

bool Hal::StoreQueue(const Caller& caller, const std::string& name, int32_t total) {
  const std::shared_ptr<const PayloadQueue> queue = queues_.Take(caller);
  UploadSource upload;
  if (queue == nullptr || total < 0 || !queue->Next(static_cast<uint32_t>(total), &upload)) {
    LOGE("payload %s of %s refused: %s", Printable(name).c_str(), caller.ToString().c_str(),
         queue == nullptr ? "no queue is configured" : "the queue does not hold it");
    return false;
  }
  return MayStore(caller, name) && spool_->Store(name, upload);
}

uint32_t Hal::AddChannel(const Caller& caller, UniqueFd fd, int32_t offset, int32_t length,
                         SendNotice done) {
  Result<std::shared_ptr<const SharedRegion>> region = SharedRegion::Open(
      std::move(fd), static_cast<uint32_t>(offset), static_cast<uint32_t>(length));
  const std::string why = region.ok() ? "too many channels are open" : region.error().text;
  const uint32_t token = region.ok()
                             ? channels_.Add({caller, *std::move(region),
                                              std::make_shared<const SendNotice>(std::move(done))})
                             : 0;
  if (token == 0) {
    LOGE("channel of %s refused: %s", caller.ToString().c_str(), why.c_str());
  }
  return token;
}

int32_t Hal::StoreSlot(const Caller& caller, const std::string& name,
                       std::span<const uint8_t> header, int32_t token, int32_t offset,
                       int32_t size) {
  const std::shared_ptr<const Channel> channel =
      channels_.Find(caller, static_cast<uint32_t>(token));
  const auto refuse = [&](const char* why, int error) {
    LOGE("slot of %s at %d, %d bytes, refused: %s", caller.ToString().c_str(), offset, size, why);
    return -error;
  };
  if (channel == nullptr) return refuse("no such channel", EBADF);
  const char* const busy = completions_.Refusal(caller);
  if (busy != nullptr) return refuse(busy, EBUSY);
  if (header.size() != header::kBytes) return refuse("no 66-byte header", EINVAL);
  if (size <= 0 || static_cast<uint32_t>(size) > Spool::kMaxUploadBytes - header.size()) {
    return refuse("a size that no upload may have", EINVAL);
  }
  const SharedRegion& region = *channel->region;
  const auto start = static_cast<uint32_t>(offset);
  if (!region.Holds(start, static_cast<uint32_t>(size))) {
    return refuse("it lies outside the region, or the region has shrunk", EINVAL);
  }
  // The header, then the slot.
  const UploadSource upload{
      header.size() + static_cast<uint32_t>(size), [&](uint64_t from, std::span<uint8_t> piece) {
        const size_t of_header =
            from < header.size() ? std::min(piece.size(), header.size() - from) : 0;
        if (of_header > 0) memcpy(piece.data(), header.data() + from, of_header);
        const uint64_t of_slot = from + of_header - header.size();
        return region.Read(start + of_slot, piece.subspan(of_header));
      }};
  if (!MayStore(caller, name)) return -EACCES;
  if (!spool_->Store(name, upload)) return -EIO;
  if (!channels_.Has(static_cast<uint32_t>(token)) ||
      !completions_.Post(caller, {token, offset, size, 0}, channel->done)) {
    LOGW("slot of %s is stored, but its channel has been closed", caller.ToString().c_str());
  }
  return 0;
}

bool Hal::RemoveChannel(const Caller& caller, int32_t token) {
  if (channels_.Remove(caller, static_cast<uint32_t>(token))) {
    completions_.Drop(caller, token);
    return true;
  }
  LOGE("channel %d of %s cannot be closed: it has none of that number", token,
       caller.ToString().c_str());
  return false;
}

void Hal::ChannelDied(uint32_t token) {
  const std::shared_ptr<const Channel> channel = channels_.RemoveDead(token);
  if (channel == nullptr) return;
  completions_.Drop(channel->owner, static_cast<int32_t>(token));
  LOGW("channel %u closed: its client died", token);
}

}  // namespace orb::hal
