// Message queues: layout, semantics, and peers that lie.
#include <android/log.h>
#include <fcntl.h>
#include <fmq/AidlMessageQueue.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "tests/support/log_capture.h"

namespace {

using android::SynchronizedReadWrite;
using Queue = android::AidlMessageQueue<int8_t, SynchronizedReadWrite>;
using Words = android::AidlMessageQueue<uint32_t, SynchronizedReadWrite>;
using Descriptor = android::MQDescriptor<int8_t, SynchronizedReadWrite>;
using Grantor = aidl::android::hardware::common::fmq::GrantorDescriptor;

bool Put(Queue* queue, const std::string& text) {
  return queue->write(reinterpret_cast<const int8_t*>(text.data()), text.size());
}

// "" when the read is refused.
std::string Take(Queue* queue, size_t count) {
  std::string text(count, '?');
  return queue->read(reinterpret_cast<int8_t*>(text.data()), count) ? text : "";
}

// Every part as "descriptor:offset+extent ".
std::string Places(const Descriptor& desc) {
  std::string text;
  for (const Grantor& grantor : desc.grantors) {
    text += std::to_string(grantor.fdIndex) + ":" + std::to_string(grantor.offset) + "+" +
            std::to_string(grantor.extent) + " ";
  }
  return text;
}

Grantor MakeGrantor(int32_t offset, int64_t extent) {
  Grantor grantor;
  grantor.offset = offset;
  grantor.extent = extent;
  return grantor;
}

TEST(QueueTest, HasTheLayoutThatPeersExpect) {
  Queue queue(11);
  ASSERT_TRUE(Put(&queue, "hello"));
  const Descriptor desc = queue.dupeDesc();
  EXPECT_EQ(Places(desc), "0:0+8 0:8+8 0:16+11 ");
  EXPECT_EQ(Places(Queue(11, /*configureEventFlagWord=*/true).dupeDesc()),
            "0:0+8 0:8+8 0:16+11 0:32+4 ");
  EXPECT_EQ(desc.quantum, 1);
  EXPECT_EQ(desc.flags, 1);
  EXPECT_TRUE(desc.handle.ints.empty());
  ASSERT_EQ(desc.handle.fds.size(), 1u);

  const int fd = desc.handle.fds[0].get();
  struct stat info = {};
  ASSERT_EQ(fstat(fd, &info), 0);
  EXPECT_EQ(info.st_size, sysconf(_SC_PAGESIZE));
  EXPECT_EQ(fcntl(fd, F_GET_SEALS), F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL);
  char memory[21] = {};
  ASSERT_EQ(pread(fd, memory, sizeof memory, 0), static_cast<ssize_t>(sizeof memory));
  EXPECT_EQ(std::string(memory, sizeof memory), std::string("\0\0\0\0\0\0\0\0"
                                                            "\5\0\0\0\0\0\0\0"
                                                            "hello",
                                                            21));
}

TEST(QueueTest, TakesAllOrNothingUpToItsExactSize) {
  Queue writer(11);
  Queue reader(writer.dupeDesc());
  ASSERT_TRUE(reader.isValid());
  EXPECT_EQ(writer.getQuantumCount(), 11u);
  EXPECT_FALSE(Put(&writer, "twelve bytes"));
  EXPECT_EQ(writer.availableToWrite(), 11u);
  EXPECT_TRUE(Put(&writer, "12345678"));
  EXPECT_FALSE(Put(&writer, "abcd"));
  EXPECT_TRUE(Put(&writer, "abc"));
  EXPECT_EQ(writer.availableToWrite(), 0u);
  EXPECT_EQ(Queue(writer.dupeDesc(), /*resetPointers=*/false).availableToRead(), 11u);
  EXPECT_EQ(Take(&reader, 12), "");
  EXPECT_EQ(Take(&reader, 7), "1234567");
  EXPECT_TRUE(Put(&writer, "defghij"));  // Around the end.
  EXPECT_EQ(reader.availableToRead(), 11u);
  EXPECT_EQ(Take(&reader, 11), "8abcdefghij");
  EXPECT_EQ(Take(&reader, 1), "");
  ASSERT_TRUE(Put(&writer, "left"));
  EXPECT_EQ(Queue(writer.dupeDesc()).availableToRead(), 0u) << "a new reader empties it";

  const int8_t byte = 0;
  EXPECT_TRUE(writer.write(&byte, 0));
  EXPECT_FALSE(writer.write(nullptr, 0));
}

TEST(QueueTest, OneThreadWritesWhileAnotherReads) {
  constexpr uint32_t kCount = 5000;
  Words writer(37);
  Words reader(writer.dupeDesc());
  std::thread thread([&] {
    for (uint32_t i = 0; i < kCount; ++i) {
      while (!writer.write(&i)) std::this_thread::yield();
    }
  });
  for (uint32_t i = 0; i < kCount; ++i) {
    uint32_t value = 0;
    while (!reader.read(&value)) std::this_thread::yield();
    EXPECT_EQ(value, i);
  }
  thread.join();
}

TEST(QueueTest, AnInvalidQueueAnswersNothing) {
  orb::LogCapture log;
  Queue empty(0);
  EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "FMQ", "Requested queue size of 0."));
  Queue of_nothing(empty.dupeDesc());
  EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "FMQ", "MQDescriptor is invalid or queue size is 0."));
  Words too_large(SIZE_MAX / 2);
  Queue beyond_offsets(size_t{INT32_MAX});
  EXPECT_EQ(log.Count("Queue size is too large"), 2u);
  EXPECT_FALSE(too_large.isValid());
  EXPECT_FALSE(beyond_offsets.isValid());
  for (Queue* queue : {&empty, &of_nothing}) {
    EXPECT_FALSE(queue->isValid());
    EXPECT_EQ(queue->getQuantumCount(), 0u);
    EXPECT_EQ(queue->availableToWrite(), 0u);
    EXPECT_FALSE(Put(queue, "x"));
    EXPECT_TRUE(queue->dupeDesc().handle.fds.empty());
  }
}

// Makes a page of memory with these seals.
ndk::ScopedFileDescriptor Memory(int seals) {
  ndk::ScopedFileDescriptor fd(memfd_create("peer", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  EXPECT_EQ(ftruncate(fd.get(), sysconf(_SC_PAGESIZE)), 0);
  EXPECT_EQ(fcntl(fd.get(), F_ADD_SEALS, seals), 0);
  return fd;
}

TEST(QueueTest, RefusesEveryDescriptorThatLies) {
  using Hostile = android::MQDescriptor<uint32_t, SynchronizedReadWrite>;
  const std::pair<const char*, std::function<void(Hostile*)>> kCases[] = {
      {"no descriptor", [](Hostile* d) { d->handle.fds.clear(); }},
      {"not memory", [](Hostile* d) { d->handle.fds[0].set(open("/dev/null", O_RDWR)); }},
      {"may shrink", [](Hostile* d) { d->handle.fds[0] = Memory(F_SEAL_GROW); }},
      {"cannot be written",
       [](Hostile* d) { d->handle.fds[0] = Memory(F_SEAL_SHRINK | F_SEAL_WRITE); }},
      {"no grantors", [](Hostile* d) { d->grantors.clear(); }},
      {"two grantors", [](Hostile* d) { d->grantors.pop_back(); }},
      {"five grantors", [](Hostile* d) { d->grantors.resize(5, MakeGrantor(64, 4)); }},
      {"descriptor index past the end", [](Hostile* d) { d->grantors[2].fdIndex = 1; }},
      {"negative offset", [](Hostile* d) { d->grantors[1].offset = -8; }},
      {"crooked offset", [](Hostile* d) { d->grantors[1].offset = 20; }},
      {"short counter", [](Hostile* d) { d->grantors[0].extent = 4; }},
      {"long counter", [](Hostile* d) { d->grantors[1] = MakeGrantor(64, 16); }},
      {"data over a counter", [](Hostile* d) { d->grantors[2].offset = 8; }},
      {"no data", [](Hostile* d) { d->grantors[2].extent = 0; }},
      {"data past the memory", [](Hostile* d) { d->grantors[2].extent = 1 << 20; }},
      {"data that overflows", [](Hostile* d) { d->grantors[2].extent = INT64_MAX - 7; }},
      {"broken item", [](Hostile* d) { d->grantors[2].extent = 10; }},
      {"other quantum", [](Hostile* d) { d->quantum = 8; }},
      {"other flavour", [](Hostile* d) { d->flags = 2; }},
      {"long event flag", [](Hostile* d) { d->grantors.push_back(MakeGrantor(64, 8)); }},
  };
  for (const auto& [name, spoil] : kCases) {
    SCOPED_TRACE(name);
    Words writer(3);
    Hostile hostile = writer.dupeDesc();
    spoil(&hostile);
    orb::LogCapture log;
    EXPECT_FALSE(Words(hostile).isValid());
    EXPECT_EQ(log.Lines().size(), 1u) << log.Dump();
  }
}

}  // namespace
