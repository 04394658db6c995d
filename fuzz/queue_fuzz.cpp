// A message queue's descriptor and memory from a peer, who also changes the
// counters while the queue is in use.
//
// input   := how:u8 count:u8 grantor* quantum:u8 flags:u8 length:u16 memory step*
// how     := 1 sealed | 2 resets the counters | 4 a second descriptor | 8 wide items
// grantor := index:i8 offset:i32 extent:i64
// step    := what:u8 value:u64      reads, writes, or stores a counter
#include <fcntl.h>
#include <fmq/AidlMessageQueue.h>
#include <unistd.h>

#include "fuzz/fuzz_input.h"
#include "fuzz/memory_file.h"

namespace {

using orb::fuzz::Input;
using orb::fuzz::MemoryFile;

constexpr int kStepsMax = 32;
constexpr size_t kItemsMax = 4096;  // Limit for one call of the queue's owner.

template <typename T>
void Use(Input* input, uint8_t how, int peer_fd) {
  using Queue = android::AidlMessageQueue<T, android::SynchronizedReadWrite>;
  android::MQDescriptor<T, android::SynchronizedReadWrite> desc;
  for (int left = input->Take<uint8_t>() % 6; left > 0; --left) {
    auto& grantor = desc.grantors.emplace_back();
    grantor.fdIndex = input->Take<int8_t>();
    grantor.offset = input->Take<int32_t>();
    grantor.extent = input->Take<int64_t>();
  }
  desc.quantum = input->Take<uint8_t>();
  desc.flags = input->Take<uint8_t>();
  const std::vector<uint8_t> memory = input->TakeBytes(input->Take<uint16_t>());
  MemoryFile file(memory.data(), memory.size());
  if ((how & 1) != 0) fcntl(file.fd(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW);
  const orb::UniqueFd peer(dup(file.fd()));
  desc.handle.fds.emplace_back(dup(file.fd()));
  if ((how & 4) != 0) desc.handle.fds.emplace_back(dup(peer_fd));

  Queue queue(desc, (how & 2) != 0);
  if (!queue.isValid()) return;
  std::vector<T> items(kItemsMax);
  for (int step = 0; step < kStepsMax && input->left() > 0; ++step) {
    const auto what = input->Take<uint8_t>();
    const auto value = input->Take<uint64_t>();
    const size_t count = static_cast<size_t>(value % kItemsMax);
    const size_t readable = queue.availableToRead();
    FUZZ_CHECK(readable <= queue.getQuantumCount());
    FUZZ_CHECK(queue.availableToWrite() <= queue.getQuantumCount());
    if (what % 3 == 0) {
      const bool read = queue.read(items.data(), count);
      FUZZ_CHECK(!read || count <= readable);
    } else if (what % 3 == 1) {
      queue.write(items.data(), count);
    } else {
      const auto& grantor = desc.grantors[(what / 3) % desc.grantors.size()];
      // Sealed memory does not grow: not more than the event flag's four bytes there.
      const size_t bytes = std::min(sizeof value, static_cast<size_t>(grantor.extent));
      FUZZ_CHECK(pwrite(peer.get(), &value, bytes, grantor.offset) >= 0);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input input(data, size);
  const auto how = input.Take<uint8_t>();
  if ((how & 8) != 0) {
    Use<int64_t>(&input, how, STDIN_FILENO);
  } else {
    Use<int8_t>(&input, how, STDIN_FILENO);
  }
  return 0;
}
