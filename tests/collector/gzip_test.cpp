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
  FILE* Open(const std::string& content, const std::string& mode = "rb") {
    const std::string path = data_dir_ + mode;
    EXPECT_TRUE(WriteFile(path, content));
    return fopen(path.c_str(), mode.c_str());
  }
};

TEST_F(GzipTest, RestoresWhatRemainsOfTheFile) {
  Make();
  // About a chunk, beyond a window of output, well compressed, and nothing at all.
  for (const std::string& content :
       {RandomBytes(1), RandomBytes(16383), RandomBytes(16384), RandomBytes(16385),
        RandomBytes(100000), std::string(1000000, 'z'), std::string()}) {
    SCOPED_TRACE(content.size());
    log_.Clear();
    FILE* src = Open("prefix" + content);
    ASSERT_EQ(fseek(src, 6, SEEK_SET), 0);
    uint8_t* dst = nullptr;
    uint32_t dst_len = 0;
    const auto len = static_cast<uint32_t>(content.size());
    ASSERT_EQ(collector_->kiv_data_compress(src, len, &dst, &dst_len), 0);
    EXPECT_EQ(Gunzip(dst, dst_len), content);
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
  FILE* unreadable = Open("unreadable", "wb");
  // Sized for 10 bytes, there are 100000.
  for (FILE* bad : {src, unreadable}) {
    EXPECT_EQ(collector_->kiv_data_compress(bad, 10, &dst, &dst_len), -EINVAL);
    EXPECT_EQ(dst, nullptr);
    EXPECT_EQ(dst_len, 0u);
    fclose(bad);
  }
  ExpectError("orb_data_compress: fread failed.\n");
}

}  // namespace
}  // namespace orb::test
