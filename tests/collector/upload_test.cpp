#include <cerrno>

#include "collector/seal.h"
#include "proto/telemetry_footer.pb.h"
#include "tests/collector/collector_fixture.h"
#include "tests/collector/gunzip.h"
#include "tests/crypto/sealed_payload.h"

namespace orb::test {
namespace {

constexpr uint64_t kLicSn = 42;
const std::string kPayload = "\x08\x01 twelve records, twelve records, twelve records";

// Decrypts an upload the way its receiver would, from the upload's bytes alone.
std::string Open(const FakeAidlClient::Upload& upload, const std::string& private_pem, int salgo) {
  TelemetryFooter footer;
  EXPECT_TRUE(footer.ParseFromArray(upload.footer.data(), static_cast<int>(upload.footer.size())));
  const orb::SealedPayload sealed{0, footer.ephemeral_key(),
                                  std::string(upload.data.begin(), upload.data.end()), footer.iv(),
                                  footer.gcm_tag()};
  const std::string data = orb::Open(salgo, private_pem, sealed).data;
  return Gunzip(reinterpret_cast<const uint8_t*>(data.data()), data.size());
}

class UploadTest : public CollectorFixture {
 protected:
  // Runs a session that knows this LicSN; uploads are then up to the test.
  void StartWith(const LTCCampaignDef& def, const std::vector<LicInfo>& infos) {
    MakeRegistered().SetCampaignId(0x0102030405060708u);
    ASSERT_EQ(collector_->StartSession(MakeConfig(def, infos)), 0);
    log_.Clear();
  }
  // A closed data file of kLicSn; its path.
  std::string WriteDataFile(const std::string& payload) {
    const std::vector<uint8_t> header = collector_->BuildFileHeader(kLicSn);
    const std::string path = data_dir_ + "closed.data";
    EXPECT_TRUE(WriteFile(path, std::string(header.begin(), header.end()) + payload));
    return path;
  }
  int Send(const std::string& payload) {
    const std::string path = WriteDataFile(payload);
    const int result = collector_->SendData(path);
    EXPECT_NE(access(path.c_str(), F_OK), 0) << "data files are deleted in every case";
    return result;
  }
};

TEST_F(UploadTest, UploadsAreNamedNumberedAndCompressed) {
  StartWith(MakeCampaign(), {});
  // About a chunk, beyond a window of output, and well compressed.
  const std::string payloads[] = {orb::SomeData(1),      orb::SomeData(16383),
                                  orb::SomeData(16384),  orb::SomeData(16385),
                                  orb::SomeData(100000), std::string(1000000, 'z')};
  for (size_t i = 0; i < std::size(payloads); ++i) {
    SCOPED_TRACE(payloads[i].size());
    ASSERT_EQ(Send(payloads[i]), 0);
    const FakeAidlClient::Upload upload = client_->Uploads().back();
    EXPECT_TRUE(Gunzip(upload.data.data(), upload.data.size()) == payloads[i]);
    EXPECT_EQ(upload.token, FakeAidlClient::kToken);
    EXPECT_EQ(upload.name, "/up/7/radio.42");
    EXPECT_NE(HeaderText(upload.header).find(" number " + std::to_string(i) + " "),
              std::string::npos);
    EXPECT_GT(header::kCreated.Load(upload.header.data()), 1500000000000u) << "creation time";
    EXPECT_TRUE(log_.Contains("orb_data_compress: allocated dst_buf with size "));
    EXPECT_TRUE(log_.Contains(" src_buf_len " + std::to_string(payloads[i].size())));
  }
  EXPECT_EQ(ReadFileOrEmpty(data_dir_ + "/radio.seq"), "6\n");
}

TEST_F(UploadTest, CompressionRefusesWhatItCannotDo) {
  Make();
  uint8_t* dst = nullptr;
  uint32_t dst_len = 0;
  const std::string path = data_dir_ + "data";
  ASSERT_TRUE(WriteFile(path, orb::SomeData(100000)));
  FILE* src = fopen(path.c_str(), "rb");
  EXPECT_EQ(collector_->kiv_data_compress(nullptr, 1, &dst, &dst_len), -EINVAL);
  EXPECT_EQ(collector_->kiv_data_compress(src, 1, nullptr, &dst_len), -EINVAL);
  EXPECT_EQ(collector_->kiv_data_compress(src, 1, &dst, nullptr), -EINVAL);
  EXPECT_EQ(log_.Count("src fp/dst_buf/dst_buf_len is NULL"), 3u);
  // Sized for 10 bytes, there are 100000; and one that cannot be read.
  for (FILE* bad : {src, fopen(path.c_str(), "ab")}) {
    EXPECT_EQ(collector_->kiv_data_compress(bad, 10, &dst, &dst_len), -EINVAL);
    EXPECT_EQ(dst, nullptr);
    EXPECT_EQ(dst_len, 0u);
    fclose(bad);
  }
  ExpectError("orb_data_compress: fread failed.\n");
}

enum Outcome { kPlain, kSealed, kDropped };

enum Flag { kAbsent, kOff, kOn };  // What the campaign says of encryption.

struct SealCase {
  const char* name;
  bool header_override;
  Flag flag;
  const char* key;  // None: the LicSN has no key entry.
  int palgo;
  int salgo;
  Outcome want;
  const char* want_log;
};

TEST_F(UploadTest, DecidesWhatIsSealed) {
  const orb::KeyPair pair = orb::NewP256();
  const char* const pem = pair.public_pem.c_str();
  const char* const plain = "radio: encryption not enabled for licSN: 42";
  const char* const failed = "radio: encryption failed - 2";
  const char* const sealed = "radio: out_data_len ";
  const SealCase cases[] = {
      {"absent", false, kAbsent, pem, 1, 2, kPlain, "LicSN 42 not found in LicSN2EncryptMap"},
      {"flag off", false, kOff, pem, 1, 2, kPlain, plain},
      {"GCM", false, kOn, pem, 1, 2, kSealed, sealed},
      {"CBC", false, kOn, pem, 1, 1, kSealed, sealed},
      {"no key", false, kOn, nullptr, 0, 0, kDropped,
       "radio: ISVKey info not found for LicSN 42 in LicSn2ISVKeyMap"},
      {"no PEM", false, kOn, "0123456789", 1, 2, kDropped, failed},
      {"inputs", false, kOn, "PEM", 1, 2, kDropped,
       "radio: encryptionPkey PEM encryptionPkeySize 3 salgo 2 palgo 1"},
      {"unknown algorithm", false, kOn, pem, 1, 3, kDropped, "radio: encryption failed - 1"},
      {"override, flag off", true, kOff, pem, 1, 2, kSealed, sealed},
      {"override, absent", true, kAbsent, pem, 1, 1, kSealed, sealed},
      {"override, no key", true, kOn, nullptr, 0, 0, kPlain, plain},
      {"override, short key", true, kOn, "0123456789", 1, 2, kPlain, plain},
      {"override, bad key", true, kOn, "0123456789A", 1, 2, kDropped, failed},
      {"override, no salgo", true, kOn, pem, 1, 0, kPlain, plain},
      {"override, no palgo", true, kOn, pem, 0, 2, kPlain, plain},
  };
  for (const SealCase& c : cases) {
    SCOPED_TRACE(c.name);
    client_ = std::make_shared<FakeAidlClient>();
    cfg_.header_override = c.header_override;
    LTCCampaignDef def = MakeCampaign();
    std::vector<LicInfo> infos;
    // Of two entries for a LicSN the first one counts.
    if (c.flag != kAbsent) {
      AddLicSn(&def, kLicSn, c.flag == kOn);
      AddLicSn(&def, kLicSn, c.flag != kOn);
    }
    if (c.key != nullptr) {
      infos.push_back(MakeLicInfo(kLicSn, c.key, c.palgo, c.salgo));
      infos.push_back(MakeLicInfo(kLicSn, "another key", 3, 3));
    }
    Destroy();
    unlink((data_dir_ + "radio-42.tmp").c_str());  // Empty, but for an overridden header.
    unlink((data_dir_ + "radio.seq").c_str());
    StartWith(def, infos);

    EXPECT_EQ(Send(kPayload), c.want == kDropped ? -1 : 0);
    EXPECT_TRUE(log_.Contains(c.want_log)) << log_.Dump();
    EXPECT_EQ(
        log_.Contains("SendData: radio: encrypt enabled but encryption failed - dropping data " +
                      data_dir_ + "closed.data"),
        c.want == kDropped);
    const auto uploads = client_->Uploads();
    ASSERT_EQ(uploads.size(), c.want == kDropped ? 0u : 1u);
    if (c.want == kDropped) continue;
    const FakeAidlClient::Upload& upload = uploads[0];
    const size_t data_bytes = upload.data.size();
    const size_t footer_bytes = upload.footer.size();
    const std::string end =
        c.want == kPlain ? "0 footer at 0" : "1 footer at " + std::to_string(66 + data_bytes);
    EXPECT_EQ(HeaderText(upload.header),
              "9 66 client 7 kind " +
                  std::string(c.header_override ? "0 version 0" : "4 version 1") + " length " +
                  std::to_string(data_bytes + footer_bytes) +
                  " 1 compressed 1 campaign 72623859790382856 number 0 owner 42 sealed " + end);
    if (c.want == kPlain) {
      EXPECT_EQ(footer_bytes, 0u);
      EXPECT_EQ(Gunzip(upload.data.data(), data_bytes), kPayload);
    } else {
      EXPECT_EQ(Open(upload, pair.private_pem, c.salgo), kPayload);
      ExpectInfo("SendData: radio: out_data_len " + std::to_string(data_bytes) +
                 " footer_len: " + std::to_string(footer_bytes));
    }
  }
}

TEST_F(UploadTest, NothingIsSentWithoutPayloadOrHal) {
  StartWith(MakeCampaign(), {});
  EXPECT_EQ(Send(""), -1);
  const std::string path = data_dir_ + "closed.data";
  ExpectError("SendData: no valid data to send " + path);
  EXPECT_EQ(collector_->SendData(path), -1);
  ExpectError("SendData: error in opening file " + path + " - No such file or directory");
  EXPECT_EQ(ReadFileOrEmpty(data_dir_ + "radio.seq"), "") << "no number was drawn";

  client_->Fail("sendData", 1, 1, -1);
  EXPECT_EQ(Send(kPayload), -1);
  Make();  // Not registered: there is no client.
  EXPECT_EQ(Send(kPayload), -1);
}

TEST_F(UploadTest, IncompleteSealsAreRefused) {
  const struct {
    int salgo;
    int missing;  // 1 ciphertext, 2 key, 3 IV, 4 tag, 0 nothing.
    const char* want_log;
  } cases[] = {
      {2, 0, ""},
      {1, 1, "6 orb_sdk: SendData: radio: encryption failed - 0\n"},
      {1, 2, "6 orb_sdk: SendData: radio: encryption failed - 0\n"},
      {1, 3, "6 orb_sdk: SendData: radio: encryption failed - 0\n"},
      {2, 4, "6 orb_sdk: SendData: radio: encryption failed - 0 gcm_tag empty\n"},
      {1, 4, ""},  // CBC has none.
  };
  for (const auto& c : cases) {
    log_.Clear();
    ::SealedPayload sealed;
    sealed.status = 0;
    orb::MallocBytes* const parts[] = {&sealed.ciphertext, &sealed.ephemeral_key, &sealed.iv,
                                       &sealed.tag};
    for (int i = 0; i < 4; ++i) {
      if (i + 1 == c.missing) continue;
      parts[i]->data = static_cast<uint8_t*>(malloc(1));
      parts[i]->size = 1;
    }
    EXPECT_EQ(sealed.Complete("radio", c.salgo), *c.want_log == '\0');
    EXPECT_EQ(log_.Dump(), c.want_log);
  }
}

}  // namespace
}  // namespace orb::test
