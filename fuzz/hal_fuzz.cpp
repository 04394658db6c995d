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

struct Setup {
  Input input;
  Hal hal;
  Caller caller{100, 1000};
  uint32_t token = 0;
  orb::UniqueFd client_side;  // Of the region last announced.
};

std::string Name(Input* input) { return input->TakeText(input->Take<uint8_t>()); }

void Seal(int fd) { FUZZ_CHECK(fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK) == 0); }

void Configure(Setup* s) {
  QueueLayout layout;
  for (int left = s->input.Take<uint8_t>() % 6; left > 0; --left) {
    const auto index = s->input.Take<int8_t>();
    const auto offset = s->input.Take<int16_t>();
    layout.pieces.push_back({index, offset, s->input.Take<int32_t>()});
  }
  layout.quantum_bytes = s->input.Take<uint8_t>();
  layout.flags = s->input.Take<uint8_t>();
  const std::vector<uint8_t> bytes = s->input.TakeBytes(s->input.Take<uint8_t>());
  layout.fds.push_back(MemoryFile(bytes.data(), bytes.size()).Release());
  Seal(layout.fds[0].get());
  s->hal.ConfigureQueue(s->caller, std::move(layout));
}

void Announce(Setup* s) {
  const auto offset = s->input.Take<int32_t>();
  const auto length = s->input.Take<int32_t>();
  orb::UniqueFd fd = MemoryFile(nullptr, 0).Release();
  FUZZ_CHECK(ftruncate(fd.get(), s->input.Take<uint16_t>()) == 0);
  Seal(fd.get());
  s->client_side = orb::UniqueFd(dup(fd.get()));
  const uint32_t token =
      s->hal.AddChannel(s->caller, std::move(fd), offset, length,
                        [](const Notice&, const Receipt&) { return Sent::kYes; });
  if (token != 0) s->token = token;
}

int32_t Token(Setup* s) {
  return static_cast<int32_t>(s->token + static_cast<uint32_t>(s->input.Take<int8_t>()));
}

void Slot(Setup* s) {
  const std::string name = Name(&s->input);
  const std::vector<uint8_t> header = s->input.TakeBytes(s->input.Take<uint8_t>());
  const int32_t token = Token(s);
  const auto offset = s->input.Take<int32_t>();
  s->hal.StoreSlot(s->caller, name, header, token, offset, s->input.Take<int32_t>());
}

void Step(Setup* s) {
  switch (s->input.Take<uint8_t>()) {
    case 0:
      return Configure(s);
    case 1: {
      const std::string name = Name(&s->input);
      s->hal.StoreQueue(s->caller, name, s->input.Take<int32_t>());
      return;
    }
    case 2:
      return Announce(s);
    case 3:
      return Slot(s);
    case 4:
      s->hal.RemoveChannel(s->caller, Token(s));
      return;
    case 5:
      if (s->client_side.get() < 0) return;
      // It can only grow.
      static_cast<void>(!ftruncate(s->client_side.get(), s->input.Take<uint16_t>()));
      return;
    default:
      s->caller.pid ^= 1;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const orb::test::TempDir dir;
  auto spool = Spool::Open(dir.path(), kSpoolBytesMax);
  FUZZ_CHECK(spool.ok());
  Setup setup{Input(data, size), Hal(*std::move(spool)), {100, 1000}, 0, orb::UniqueFd()};
  for (int step = 0; step < kStepsMax && setup.input.left() > 0; ++step) Step(&setup);

  SpoolScan scan;
  const orb::UniqueFd root(open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  FUZZ_CHECK(ScanSpool(root.get(), 0, &scan) == 0);
  FUZZ_CHECK(scan.bytes <= setup.hal.spool().StoredBytes());  // Includes empty folders.
  FUZZ_CHECK(scan.bytes <= kSpoolBytesMax);
  return 0;
}
