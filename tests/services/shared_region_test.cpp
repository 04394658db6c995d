// Descriptors as a hostile client could announce them.
#include "services/hal/shared_region.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <limits>

namespace orb::hal {
namespace {

constexpr int64_t kMax = std::numeric_limits<int64_t>::max();

UniqueFd Memory(const std::string& content) {
  UniqueFd fd(memfd_create("region", MFD_CLOEXEC));
  EXPECT_EQ(pwrite(fd.get(), content.data(), content.size(), 0),
            static_cast<ssize_t>(content.size()));
  return fd;
}

std::string Text(const std::vector<uint8_t>& bytes) { return {bytes.begin(), bytes.end()}; }

TEST(SharedRegionTest, RefusesWhatIsNoSharedMemory) {
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  const UniqueFd other(pair[1]);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const UniqueFd write_end(ends[1]);
  struct Case {
    const char* what;
    UniqueFd fd;
    int64_t offset;
    int64_t length;
  };
  Case cases[] = {
      {"none", UniqueFd(), 0, 4},
      {"socket", UniqueFd(pair[0]), 0, 4},
      {"pipe", UniqueFd(ends[0]), 0, 4},
      {"directory", UniqueFd(open("/", O_RDONLY | O_DIRECTORY)), 0, 4},
      {"device", UniqueFd(open("/dev/zero", O_RDONLY)), 0, 4},
      {"empty region", Memory(""), 0, 1},
      {"no length", Memory("01234567"), 0, 0},
      {"negative length", Memory("01234567"), 0, -1},
      {"negative offset", Memory("01234567"), -4, 4},
      {"offset behind the end", Memory("01234567"), 9, 1},
      {"length beyond the end", Memory("01234567"), 4, 5},
      {"sum that overflows", Memory("01234567"), 8, kMax},
      {"offset that overflows", Memory("01234567"), kMax, kMax},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::string why;
    EXPECT_EQ(SharedRegion::Open(std::move(c.fd), c.offset, c.length, &why), nullptr);
    EXPECT_NE(why, "");
  }
}

TEST(SharedRegionTest, RefusesADescriptorThatCannotBeRead) {
  char path[] = "/tmp/orb_region_XXXXXX";
  const UniqueFd whole(mkstemp(path));
  ASSERT_EQ(ftruncate(whole.get(), 16), 0);
  UniqueFd write_only(open(path, O_WRONLY));
  unlink(path);
  std::string why;
  EXPECT_EQ(SharedRegion::Open(std::move(write_only), 0, 16, &why), nullptr);
  EXPECT_EQ(why, "the descriptor cannot be read");
}

TEST(SharedRegionTest, ReadsOnlyInsideTheAnnouncedPart) {
  std::string why;
  const auto region = SharedRegion::Open(Memory("0123456789"), 2, 6, &why);
  ASSERT_NE(region, nullptr) << why;
  const struct {
    uint64_t offset;
    uint64_t size;
    const char* want;  // Null: refused.
  } kCases[] = {
      {0, 6, "234567"},
      {5, 1, "7"},
      {6, 0, ""},
      {0, 7, nullptr},
      {6, 1, nullptr},
      {7, 0, nullptr},
      {UINT64_MAX, 2, nullptr},
      {2, UINT64_MAX, nullptr},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::to_string(c.offset) + "+" + std::to_string(c.size));
    std::vector<uint8_t> out{'!'};
    EXPECT_EQ(region->Read(c.offset, c.size, &out), c.want != nullptr);
    EXPECT_EQ(Text(out), std::string("!") + (c.want != nullptr ? c.want : ""));
  }
}

TEST(SharedRegionTest, SurvivesAClientThatShrinksItsRegion) {
  UniqueFd fd = Memory(std::string(8192, 'x'));
  const UniqueFd client_side(dup(fd.get()));
  std::string why;
  const auto region = SharedRegion::Open(std::move(fd), 0, 8192, &why);
  ASSERT_NE(region, nullptr);
  ASSERT_EQ(ftruncate(client_side.get(), 100), 0);
  std::vector<uint8_t> out;
  EXPECT_FALSE(region->Read(0, 8192, &out));
  EXPECT_TRUE(out.empty());
  EXPECT_TRUE(region->Read(0, 100, &out));
}

}  // namespace
}  // namespace orb::hal
