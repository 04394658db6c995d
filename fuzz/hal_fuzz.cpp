// Two clients of the HAL, with queues, regions and names of any kind, in any order.
//
// input := step*
// step  := 0 queue | 1 name total:i32 | 2 region | 3 name header slot | 4 token
//        | 5 size:u16 (of the region last announced) | 6 (the other client's turn)
// queue := pieces:u8 (index:i8 offset:i16 extent:i32)* quantum:u8 flags:u8 bytes
// name, header, bytes := length:u8 byte*
// region := offset:i32 length:i32 memory:u16      slot := token offset:i32 size:i32
// token  := i8, 0 for the last one, else added to it
#include <fcntl.h>
#include <unistd.h>

#include "fuzz/fuzz_input.h"
#include "fuzz/memory_file.h"
#include "services/hal/hal.h"
#include "services/hal/spool_scan.h"
#include "tests/support/child_process.h"

namespace {

using orb::fuzz::Input;
using orb::fuzz::MemoryFile;
using namespace orb::hal;

constexpr int kStepsMax = 48;
constexpr uint64_t kSpoolBytesMax = 64 << 10;  // Small, so that files are evicted.

struct World {
  Input input;
  Hal hal;
  Caller caller{100, 1000};
  uint32_t token = 0;
  orb::UniqueFd client_side;  // Of the region last announced.
};

std::string Name(Input* input) { return input->TakeText(input->Take<uint8_t>()); }

void Seal(int fd) { FUZZ_CHECK(fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK) == 0); }

void Configure(World* w) {
  QueueLayout layout;
  for (int left = w->input.Take<uint8_t>() % 6; left > 0; --left) {
    const auto index = w->input.Take<int8_t>();
    const auto offset = w->input.Take<int16_t>();
    layout.pieces.push_back({index, offset, w->input.Take<int32_t>()});
  }
  layout.quantum_bytes = w->input.Take<uint8_t>();
  layout.flags = w->input.Take<uint8_t>();
  const std::vector<uint8_t> bytes = w->input.TakeBytes(w->input.Take<uint8_t>());
  layout.fds.push_back(MemoryFile(bytes.data(), bytes.size()).Release());
  Seal(layout.fds[0].get());
  w->hal.ConfigureQueue(w->caller, std::move(layout));
}

void Announce(World* w) {
  const auto offset = w->input.Take<int32_t>();
  const auto length = w->input.Take<int32_t>();
  orb::UniqueFd fd = MemoryFile(nullptr, 0).Release();
  FUZZ_CHECK(ftruncate(fd.get(), w->input.Take<uint16_t>()) == 0);
  Seal(fd.get());
  w->client_side = orb::UniqueFd(dup(fd.get()));
  const uint32_t token =
      w->hal.AddChannel(w->caller, std::move(fd), offset, length,
                        [](const Notice&, const Receipt&) { return Sent::kYes; });
  if (token != 0) w->token = token;
}

int32_t Token(World* w) {
  return static_cast<int32_t>(w->token + static_cast<uint32_t>(w->input.Take<int8_t>()));
}

void Slot(World* w) {
  const std::string name = Name(&w->input);
  const std::vector<uint8_t> header = w->input.TakeBytes(w->input.Take<uint8_t>());
  const int32_t token = Token(w);
  const auto offset = w->input.Take<int32_t>();
  w->hal.StoreSlot(w->caller, name, header, token, offset, w->input.Take<int32_t>());
}

void Step(World* w) {
  switch (w->input.Take<uint8_t>()) {
    case 0:
      return Configure(w);
    case 1: {
      const std::string name = Name(&w->input);
      w->hal.StoreQueue(w->caller, name, w->input.Take<int32_t>());
      return;
    }
    case 2:
      return Announce(w);
    case 3:
      return Slot(w);
    case 4:
      w->hal.RemoveChannel(w->caller, Token(w));
      return;
    case 5:
      if (w->client_side.get() < 0) return;
      // It can only grow.
      static_cast<void>(!ftruncate(w->client_side.get(), w->input.Take<uint16_t>()));
      return;
    default:
      w->caller.pid ^= 1;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const orb::test::TempDir dir;
  auto spool = Spool::Open(dir.path(), kSpoolBytesMax);
  FUZZ_CHECK(spool.ok());
  World world{Input(data, size), Hal(*std::move(spool)), {100, 1000}, 0, orb::UniqueFd()};
  for (int step = 0; step < kStepsMax && world.input.left() > 0; ++step) Step(&world);

  SpoolScan scan;
  const orb::UniqueFd root(open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  FUZZ_CHECK(ScanSpool(root.get(), 0, &scan) == 0);
  FUZZ_CHECK(scan.bytes <= world.hal.spool().StoredBytes());  // Which has empty folders, too.
  FUZZ_CHECK(scan.bytes <= kSpoolBytesMax);
  return 0;
}
