#include "serializer/kpi_memory_serializer.h"

#include <sys/resource.h>

#include <filesystem>
#include <thread>

#include "proto/kpi_data.pb.h"
#include "tests/collector/collector_fixture.h"
#include "tests/support/slot_hal.h"

namespace orb::test {
namespace {

constexpr uint32_t kSlotBytes = 16;
const char kRegionName[] = "memfd:modem_ext_stats";
const char kNoFreeSlot[] = "KPIMemorySerializer::WriteBuf: Failed to get free slot";
const char kSendFailed[] = "KPIMemorySerializer::WriteBuf: SendSlot failed";

// How often the process has a region open or mapped.
size_t RegionsInUse() {
  const std::string maps = ReadFileOrEmpty("/proc/self/maps");
  size_t count = maps.find(kRegionName) != maps.npos ? 1 : 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;  // The iterator's own descriptor.
    const std::string target = std::filesystem::read_symlink(entry, gone);
    count += target.find(kRegionName) != target.npos ? 1 : 0;
  }
  return count;
}

class MemorySerializerTest : public CollectorFixture {
 protected:
  ~MemorySerializerTest() override { slots_.reset(); }

  // A registered collector whose HAL is hal_.
  void Connect(int completions_inside) {
    hal_ = std::make_shared<SlotHal>(completions_inside);
    client_ = hal_;
    MakeRegistered();
    hal_->Serve(collector_.get());
    log_.Clear();
  }
  void Open(uint32_t count, int completions_inside = 0) {
    Connect(completions_inside);
    slots_ = std::make_unique<KPIMemorySerializer>();
    ASSERT_EQ(slots_->Initialize(kSlotBytes * count, count, collector_.get()), 0);
  }
  int Log(const std::string& text) {
    return slots_->WriteBuf(Bytes(text), static_cast<uint32_t>(text.size()));
  }
  // "offset:bytes " of every slot, oldest first.
  std::string Announced() const {
    std::string out;
    for (const SlotHal::Slot& slot : hal_->Slots()) {
      out += std::to_string(slot.offset) + ":" + slot.bytes + " ";
    }
    return out;
  }

  const std::string full_ = std::string(kSlotBytes, 'f');
  std::shared_ptr<SlotHal> hal_;
  std::unique_ptr<KPIMemorySerializer> slots_;
};

TEST_F(MemorySerializerTest, InitializeTellsWhatIsWrong) {
  Connect(0);
  const auto initialize = [&](uint32_t size, uint32_t count) {
    KPIMemorySerializer slots;
    return slots.Initialize(size, count, collector_.get());
  };
  EXPECT_EQ(initialize(6500, 65), -2);
  ExpectError("KPIMemorySerializer::Initialize: num_slots 65 greater than bitmask field 64");
  EXPECT_EQ(initialize(0, 0), -4);
  EXPECT_TRUE(log_.Contains("KPIMemorySerializer::Initialize: Failed to mmap fd "));
  EXPECT_TRUE(log_.Contains(" size 0 err: Invalid argument"));

  hal_->Fail("setupFD", 1, 1, 5);
  EXPECT_EQ(initialize(6400, 64), -5);
  ExpectError("KPIMemorySerializer::Initialize: SetFD failed");

  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  rlimit none = before;
  none.rlim_cur = 0;
  setrlimit(RLIMIT_NOFILE, &none);
  const int without_descriptors = initialize(6400, 64);
  setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_EQ(without_descriptors, -3);
  ExpectError("KPIMemorySerializer::Initialize: Failed to allocate fd with size 6400 status: -1");

  EXPECT_EQ(initialize(6400, 64), 0);
  ExpectInfo("KPIMemorySerializer::Initialize: Initialized");
}

TEST_F(MemorySerializerTest, RecordsFillSlotsAndAreNeverSplit) {
  Open(4);
  for (const char* record : {"0123456789", "abcdef", "x", "0123456789ABCDEF", "y"}) {
    EXPECT_EQ(Log(record), 0);
  }
  EXPECT_EQ(Announced(), "0:0123456789abcdef 16:x 32:0123456789ABCDEF ")
      << "a slot goes when the next record does not fit";
  EXPECT_TRUE(log_.Contains("LTC-Profiling: Send Slot 1 Size: 1 Timestamp: "));
  EXPECT_TRUE(log_.Contains("KPIMemorySerializer::WriteBuf: curr_slot_ptr "));
  EXPECT_TRUE(log_.Contains("curr_bytes_written 16 size 6 fd_buf_ptr "));
}

TEST_F(MemorySerializerTest, ExhaustedSlotsRefuseUntilTheHalCatchesUp) {
  Open(2);
  EXPECT_EQ(Log(full_), 0);
  EXPECT_EQ(Log(full_), 0);
  EXPECT_EQ(Log("lost"), -1);
  ExpectError(kNoFreeSlot);
  EXPECT_EQ(Log("lost too"), -1);
  EXPECT_EQ(slots_->Flush(), -1);
  ExpectError("KPIMemorySerializer::Flush: Failed to get free slot");
  EXPECT_EQ(hal_->Count("FdWrite"), 2u) << "no slot is announced twice";
  hal_->Complete(1);
  EXPECT_TRUE(log_.Contains("LTC-Profiling: Free Slot 1 Timestamp: "));
  EXPECT_EQ(Log("kept"), 0);
  EXPECT_EQ(slots_->Flush(), -1) << "sent, but nothing is free to go on with";
  EXPECT_EQ(Announced(), "0:" + full_ + " 16:" + full_ + " 16:kept ");
}

TEST_F(MemorySerializerTest, AtMost31SlotsAreInUse) {
  Open(64);
  for (int i = 0; i < 31; ++i) EXPECT_EQ(Log(full_), 0) << i;
  EXPECT_EQ(Log(full_), -1);
  EXPECT_EQ(hal_->Count("FdWrite"), 31u);
  ExpectError("SLOT_USAGE: 7fffffff");
  ExpectError("SLOT_USAGE: n -2147483648");
  ExpectError("KPIMemorySerializer::GetNewSlot: Failed to get free slot");
  ExpectError("SLOT_USAGE: slot 30");
  ExpectInfo("KPIMemorySerializer::GetNewSlot: Free Slot found 30");
}

// As when it dies with a slot pending, and comes back.
TEST_F(MemorySerializerTest, ARefusedSlotIsDroppedAndUsedAgain) {
  const struct {
    int status;
    bool logged;
  } kCases[] = {{-1, true}, {-7, true}, {3, false}};
  Open(2);
  EXPECT_EQ(Log("pending"), 0);
  EXPECT_EQ(Log(full_), 0);  // Announces slot 0, which stays with the HAL.
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.status);
    log_.Clear();
    hal_->Fail("FdWrite", 1, 1, c.status);
    EXPECT_EQ(Log(full_), c.status) << "the record itself is kept";
    ExpectError("SendSlot failed - dropping data");
    EXPECT_EQ(log_.Contains(kSendFailed), c.logged);
  }
  hal_->Fail("FdWrite", 1, 1, -1);
  EXPECT_EQ(slots_->Flush(), -1);
  ExpectError("KPIMemorySerializer::Flush: SendSlot failed");
  EXPECT_EQ(Log("kept"), 0);
  EXPECT_EQ(slots_->Flush(), -1) << "sent, but nothing is free to go on with";
  ASSERT_EQ(Announced(), "0:pending 16:kept ");
  hal_->Complete(0);
  hal_->Complete(1);
  EXPECT_EQ(slots_->Finalize(), 0) << "dropped slots are not waited for";
}

TEST_F(MemorySerializerTest, AnEmptySlotIsNotAnnounced) {
  Open(2);
  EXPECT_EQ(slots_->Flush(), 0);
  EXPECT_EQ(Log("a"), 0);
  EXPECT_EQ(slots_->Flush(), 0);
  EXPECT_EQ(slots_->Flush(), 0);
  slots_->UpdateConfig(KIV_PARAM_SIZE_THRESHOLD, 0);
  EXPECT_EQ(Log(""), 0);
  hal_->Complete(0);
  EXPECT_EQ(slots_->Finalize(), 0);
  EXPECT_EQ(hal_->AllBytes(), "a");
  ExpectInfo("KPIMemorySerializer::Finalize: current slot usage 0x0");
  EXPECT_FALSE(log_.Contains("not all slots are free'ed"));
  EXPECT_EQ(Log("late"), -1) << "no work is accepted any more";
}

TEST_F(MemorySerializerTest, RepeatedAndWildCompletionsFreeNothing) {
  Open(3);
  EXPECT_EQ(Log(full_), 0);
  EXPECT_EQ(Log("bbb"), 0);  // Announces slot 0, fills slot 1.
  hal_->Complete(0);
  hal_->Complete(0);
  const uint32_t token = hal_->Slots()[0].fdToken;
  for (const uint32_t offset : {kSlotBytes, 3 * kSlotBytes, 64 * kSlotBytes, 0xFFFFFFFFu}) {
    collector_->FdWriteDone(token, offset, 1, 0);
  }
  EXPECT_EQ(KPIMemorySerializer::WriteDone(nullptr, 0, 0, 0), 0);
  EXPECT_EQ(slots_->Flush(), 0);  // Announces slot 1, goes on in slot 0.
  hal_->Complete(0);              // Late once more, while slot 0 is being filled.
  EXPECT_EQ(Log("ccc"), 0);
  EXPECT_EQ(slots_->Flush(), 0);
  EXPECT_EQ(Log("ddd"), 0);
  EXPECT_EQ(slots_->Flush(), -1);
  EXPECT_EQ(Announced(), "0:" + full_ + " 16:bbb 0:ccc 32:ddd ") << "slot 0 is the HAL's";
}

// With a current slot that holds something, and with one that does not: an
// empty slot is given up, which must not count as a completion.
TEST_F(MemorySerializerTest, FinalizeWaitsForTheHal) {
  for (const bool flushed : {false, true}) {
    SCOPED_TRACE(flushed);
    Open(3);
    Log(full_);
    Log("b");
    if (flushed) {
      EXPECT_EQ(slots_->Flush(), 0);
    }
    hal_->Fail("UnsetFD", 1, 1, -1);
    std::thread stop([&] { EXPECT_EQ(slots_->Finalize(), -1) << "what closing the channel gave"; });
    EXPECT_TRUE(log_.WaitFor(
        "KPIMemorySerializer::wait_for_pending_slots: nof_slots_sent_pending: 2 before waiting"));
    hal_->Complete(0);
    hal_->Complete(0);  // Once more: counts nothing.
    EXPECT_EQ(hal_->Count("UnsetFD"), 0u) << "slot 1 is still the HAL's";
    hal_->Complete(1);
    stop.join();
    ExpectError("KPIMemorySerializer::Finalize: failed to delete session - status: -1");
    slots_.reset();
  }
}

TEST_F(MemorySerializerTest, AHalThatDiedConfirmsNothing) {
  Open(3);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(Log(full_), 0);
  const uint32_t token = hal_->Slots()[0].fdToken;
  hal_->Complete(0);
  collector_->LoseRegion(token);
  collector_->FdWriteDone(token, kSlotBytes, kSlotBytes, 0);  // Late, for slot 1.
  EXPECT_EQ(Log(full_), -1) << "the slot before is lost: there is no HAL for this region";
  ExpectError("SendSlot failed - dropping data");
  EXPECT_EQ(slots_->Finalize(), 0) << "and waits for nobody";
  const OwnerBook book = collector_->ledger().Copy().owners.at(0);
  EXPECT_EQ(book.sent.events, 1u);
  EXPECT_EQ(book.lost[LossCause::kUnconfirmed].events, 1u);
  EXPECT_EQ(book.lost[LossCause::kSlotRefused].events, 2u);
  EXPECT_TRUE(book.under_way.empty());
  ExpectInfo("KPIMemorySerializer::Finalize: current slot usage 0x0");
}

// A refused one announces nothing, and so draws no number; an empty slot is never announced.
TEST_F(MemorySerializerTest, LongRecordsStayInsideTheRegion) {
  Open(3);
  const auto log_slots = [&](size_t slots, char byte) {
    return Log(std::string(slots * kSlotBytes, byte));
  };
  EXPECT_EQ(log_slots(4, 'x'), -1);
  ExpectError("KPIMemorySerializer::WriteBuf: record of 64 bytes does not fit");
  EXPECT_EQ(log_slots(2, 'a'), 0);
  EXPECT_EQ(Log("b"), 0);
  EXPECT_EQ(log_slots(2, 'x'), -1) << "from the last slot on it would not fit";
  EXPECT_EQ(Log("B"), 0) << "the slot before it was left alone";
  EXPECT_EQ(slots_->Flush(), 0);
  EXPECT_EQ(log_slots(2, 'x'), -1) << "the last slot is current, and empty";
  hal_->Complete(0);
  hal_->Complete(1);
  EXPECT_EQ(log_slots(3, 'c'), 0) << "in slot 0, though the last one was current";
  EXPECT_EQ(Log("d"), 0);
  EXPECT_EQ(slots_->Flush(), 0);
  EXPECT_EQ(Log("e"), 0);
  log_.Clear();
  EXPECT_EQ(log_slots(3, 'x'), -1) << "no other slot is free";
  ExpectError(kNoFreeSlot);
  EXPECT_EQ(Announced(), "0:" + std::string(2 * kSlotBytes, 'a') +
                             " 16:bB 0:" + std::string(3 * kSlotBytes, 'c') + " 16:d ");
  EXPECT_EQ(hal_->Count("FdWrite"), 4u);
}

// To the bytes that protobuf's own encoder makes of the pieces, gathered.
TEST_F(MemorySerializerTest, SegmentsAreEncodedInPlace) {
  constexpr uint32_t kRegionBytes = 0x40000;
  const struct {
    const char* name;
    uint64_t number;  // The record's are made of it.
    std::vector<std::string> pieces;
  } cases[] = {
      {"two pieces", 7700, {"abc", "hello"}},
      {"no pieces", 7700, {}},
      {"an empty piece between", 7700, {"a", "", "b"}},
      {"all zero", 0, {""}},
      {"widest numbers", UINT64_MAX, {"x"}},
      {"lengths of several bytes", 7700, {std::string(200, 'a'), std::string(70000, 'b')}},
      {"many pieces", 7700, std::vector<std::string>(1000, "piece")},
  };
  Connect(1);
  slots_ = std::make_unique<KPIMemorySerializer>();
  ASSERT_EQ(slots_->Initialize(kRegionBytes, 1, collector_.get()), 0);
  for (const auto& c : cases) {
    std::string data;
    std::vector<kiv_blob_segment_t> segs;
    for (const std::string& piece : c.pieces) {
      const auto len = static_cast<uint32_t>(piece.size());
      data.append(reinterpret_cast<const char*>(&len), sizeof len).append(piece);
      segs.push_back({len == 0 ? nullptr : Bytes(piece), len});
    }
    orbtr::KPIData want;
    want.add_blobs()->set_data(data);
    orbtr::MetaData* meta = want.mutable_blobs(0)->mutable_meta();
    meta->set_kpi_id(static_cast<uint32_t>(c.number / 2));
    meta->set_ts_start(static_cast<int64_t>(c.number));
    meta->set_ts_end(static_cast<int64_t>(c.number / 3));
    meta->set_num_samples(static_cast<uint32_t>(c.number / 5));
    EXPECT_EQ(
        slots_->WriteBlobSegsOptimized(meta->kpi_id(), c.number, c.number / 3, meta->num_samples(),
                                       segs.data(), static_cast<uint32_t>(segs.size())),
        0);
    EXPECT_EQ(slots_->Write(want, 7), 0);
    EXPECT_EQ(slots_->Flush(), 0);
    const std::string record = want.SerializeAsString();
    EXPECT_TRUE(hal_->Slots().back().bytes == record + record) << c.name;
  }
  const kiv_blob_segment_t broken{nullptr, 3};
  EXPECT_EQ(slots_->WriteBlobSegsOptimized(7, 100, 200, 3, &broken, 1), -1);
  ExpectError(
      "KPIMemorySerializer::WriteBlobSegsOptimized:Encoding failed Reason: segment without bytes");
  const std::vector<uint8_t> big(kRegionBytes);
  const kiv_blob_segment_t too_long{big.data(), kRegionBytes};
  EXPECT_EQ(slots_->WriteBlobSegsOptimized(7, 100, 200, 3, &too_long, 1), -1);
}

TEST_F(MemorySerializerTest, LeavesNoDescriptorAndNoMapping) {
  for (const bool finalize : {false, true}) {
    Open(2, 1);
    EXPECT_GT(RegionsInUse(), 1u) << "descriptors and the mapping";
    Log("a");
    if (finalize) {
      EXPECT_EQ(slots_->Finalize(), 0);
    }
    slots_.reset();
    EXPECT_EQ(RegionsInUse(), 0u);
    EXPECT_EQ(hal_->Count("UnsetFD"), 1u);
  }
  hal_->Fail("setupFD", 1, 1, -1);
  EXPECT_EQ(KPIMemorySerializer().Initialize(4096, 4, collector_.get()), -5);
  EXPECT_EQ(RegionsInUse(), 0u);
}

using MemorySerializerDeathTest = MemorySerializerTest;

TEST_F(MemorySerializerDeathTest, SizesBeyond32BitsAbort) {
  Open(2);
  Log("a");
  const uint8_t byte = 0;
  EXPECT_DEATH(slots_->WriteBuf(&byte, 0xFFFFFFFF), "");
}

}  // namespace
}  // namespace orb::test
