#include <cerrno>
#include <random>

#include "tests/collector/collector_fixture.h"
#include "tests/collector/gunzip.h"

namespace orb::test {
namespace {

std::string RandomBytes(size_t count) {
  std::mt19937 random(1);
  std::string bytes(count, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

class GzipTest : public CollectorFixture {
 protected:
  // A file of this content, positioned at its start.
  FILE* Open(const std::string& content, const char* mode = "rb") {
    const std::string path = data_dir_ + "src";
    EXPECT_TRUE(WriteFile(path, content));
    return fopen(path.c_str(), mode);
  }
};

TEST_F(GzipTest, RestoresWhatRemainsOfTheFile) {
  const struct {
    const char* name;
    std::string content;
  } cases[] = {
      {"one byte", "x"},
      {"one short of a chunk", RandomBytes(16383)},
      {"one chunk", RandomBytes(16384)},
      {"one over a chunk", RandomBytes(16385)},
      {"output beyond a window", RandomBytes(100000)},
      {"well compressed", std::string(1000000, 'z')},
      {"empty", ""},
  };
  Make();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    log_.Clear();
    FILE* src = Open("prefix" + c.content);
    ASSERT_EQ(fseek(src, 6, SEEK_SET), 0);
    uint8_t* dst = nullptr;
    uint32_t dst_len = 0;
    const auto len = static_cast<uint32_t>(c.content.size());
    ASSERT_EQ(collector_->kiv_data_compress(src, len, &dst, &dst_len), 0);
    EXPECT_EQ(Gunzip(dst, dst_len), c.content);
    EXPECT_TRUE(log_.Contains("orb_data_compress: allocated dst_buf with size "));
    EXPECT_TRUE(log_.Contains(" src_buf_len " + std::to_string(len)));
    free(dst);
    fclose(src);
  }
}

TEST_F(GzipTest, RefusesWhatItCannotDo) {
  Make();
  uint8_t* dst = nullptr;
  uint32_t dst_len = 0;
  FILE* src = Open(RandomBytes(100000));
  EXPECT_EQ(collector_->kiv_data_compress(nullptr, 1, &dst, &dst_len), -EINVAL);
  EXPECT_EQ(collector_->kiv_data_compress(src, 1, nullptr, &dst_len), -EINVAL);
  EXPECT_EQ(collector_->kiv_data_compress(src, 1, &dst, nullptr), -EINVAL);
  EXPECT_EQ(log_.Count("src fp/dst_buf/dst_buf_len is NULL"), 3u);

  // Sized for 10 bytes, there are 100000.
  EXPECT_EQ(collector_->kiv_data_compress(src, 10, &dst, &dst_len), -EINVAL);
  EXPECT_EQ(dst, nullptr);
  EXPECT_EQ(dst_len, 0u);
  fclose(src);

  src = Open("unreadable", "wb");
  EXPECT_EQ(collector_->kiv_data_compress(src, 10, &dst, &dst_len), -EINVAL);
  EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "orb_data_compress: fread failed.\n"));
  EXPECT_EQ(dst, nullptr);
  fclose(src);
}

}  // namespace
}  // namespace orb::test
