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

}  // namespace
}  // namespace orb::hal
