#include "collector/seal.h"
#include "proto/telemetry_footer.pb.h"
#include "tests/collector/collector_fixture.h"
#include "tests/collector/gunzip.h"
#include "tests/crypto/sealed_payload.h"
#include "utility/byte_order.h"

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

TEST_F(UploadTest, PlainUploadByteForByte) {
  StartWith(MakeCampaign(), {});
  ASSERT_EQ(Send(kPayload), 0);
  ASSERT_EQ(client_->Uploads().size(), 1u);
  FakeAidlClient::Upload upload = client_->Uploads()[0];
  EXPECT_EQ(upload.token, FakeAidlClient::kToken);
  EXPECT_EQ(upload.name, "/up/7/radio.42");
  EXPECT_EQ(Gunzip(upload.data.data(), upload.data.size()), kPayload);
  EXPECT_TRUE(upload.footer.empty());
  ASSERT_EQ(upload.header.size(), 66u);
  std::vector<uint8_t> want = {0, 0, 0, 9, 0, 0, 0, 66, 0, 0, 0, 7,  // Constants, client id.
                               4, 0, 0, 0, 1,                        // Kind, version.
                               0, 0, 0, 0, 0, 0, 0, 0,               // 17: creation time, masked.
                               0, 0, 0, 0, 1, 1,  // 25: length, filled in below; 1; compressed.
                               0, 0, 0, 0, 0, 0, 0, 0,  0, 0,  // 31: uptime and time zone, masked.
                               1, 2, 3, 4, 5, 6, 7, 8,         // 41: campaign.
                               0, 0, 0, 0, 0, 0, 0, 0,  0, 0, 0, 42,  // 49: sequence number, LicSN.
                               0, 0, 0, 0, 0};  // 61: not encrypted, no footer.
  StoreBigEndian<uint32_t>(&want[25], static_cast<uint32_t>(upload.data.size()));
  EXPECT_GT(LoadBigEndian<uint64_t>(&upload.header[17]), 1500000000000u);
  std::fill_n(upload.header.begin() + 17, 8, 0);
  std::fill_n(upload.header.begin() + 31, 10, 0);
  EXPECT_EQ(upload.header, want);
  EXPECT_EQ(ReadFileOrEmpty(data_dir_ + "/radio.seq"), "1\n");

  ASSERT_EQ(Send(kPayload), 0);
  EXPECT_EQ(LoadBigEndian<uint32_t>(&client_->Uploads()[1].header[49]), 1u);
  EXPECT_EQ(ReadFileOrEmpty(data_dir_ + "/radio.seq"), "2\n");
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
    StartWith(def, infos);

    EXPECT_EQ(Send(kPayload), c.want == kDropped ? -1 : 0);
    EXPECT_TRUE(log_.Contains(c.want_log)) << log_.Dump();
    EXPECT_EQ(log_.Contains("SendData: radio: encrypt enabled but encryption failed - dropping "
                            "data " +
                            data_dir_ + "closed.data"),
              c.want == kDropped);
    const auto uploads = client_->Uploads();
    ASSERT_EQ(uploads.size(), c.want == kDropped ? 0u : 1u);
    if (c.want == kDropped) continue;
    const FakeAidlClient::Upload& upload = uploads[0];
    const auto data_bytes = static_cast<uint32_t>(upload.data.size());
    const auto footer_bytes = static_cast<uint32_t>(upload.footer.size());
    EXPECT_EQ(LoadBigEndian<uint32_t>(&upload.header[25]), data_bytes + footer_bytes);
    EXPECT_EQ(upload.header[30], 1);
    EXPECT_EQ(upload.header[61], c.want == kSealed ? 1 : 0);
    if (c.want == kPlain) {
      EXPECT_EQ(footer_bytes, 0u);
      EXPECT_EQ(LoadBigEndian<uint32_t>(&upload.header[62]), 0u);
      EXPECT_EQ(Gunzip(upload.data.data(), upload.data.size()), kPayload);
    } else {
      EXPECT_EQ(LoadBigEndian<uint32_t>(&upload.header[62]), 66u + data_bytes);
      EXPECT_EQ(Open(upload, pair.private_pem, c.salgo), kPayload);
      EXPECT_TRUE(Logged(ANDROID_LOG_INFO, "SendData: radio: out_data_len " +
                                               std::to_string(data_bytes) +
                                               " footer_len: " + std::to_string(footer_bytes)));
    }
  }
}

TEST_F(UploadTest, NothingIsSentWithoutPayloadOrHal) {
  StartWith(MakeCampaign(), {});
  EXPECT_EQ(Send(""), -1);
  const std::string path = data_dir_ + "closed.data";
  EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "SendData: no valid data to send " + path));
  EXPECT_EQ(collector_->SendData(path), -1);
  EXPECT_TRUE(Logged(ANDROID_LOG_ERROR,
                     "SendData: error in opening file " + path + " - No such file or directory"));
  EXPECT_EQ(ReadFileOrEmpty(data_dir_ + "radio.seq"), "") << "no number was drawn";

  client_->Fail("sendData", 1, 1, -1);
  EXPECT_EQ(Send(kPayload), -1);
  Make();  // Not registered: there is no client.
  EXPECT_EQ(Send(kPayload), -1);
}

TEST_F(UploadTest, IncompleteSealsAreRefused) {
  const struct {
    const char* name;
    int salgo;
    int32_t status;
    int missing;  // 1 ciphertext, 2 key, 3 IV, 4 tag.
    bool want;
    const char* want_log;
  } cases[] = {
      {"complete", 2, 0, 0, true, nullptr},
      {"status", 2, 2, 0, false, "SendData: radio: encryption failed - 2"},
      {"ciphertext", 1, 0, 1, false, "SendData: radio: encryption failed - 0"},
      {"key", 1, 0, 2, false, "SendData: radio: encryption failed - 0"},
      {"iv", 1, 0, 3, false, "SendData: radio: encryption failed - 0"},
      {"tag of GCM", 2, 0, 4, false, "SendData: radio: encryption failed - 0 gcm_tag empty"},
      {"no tag with CBC", 1, 0, 4, true, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    log_.Clear();
    ::SealedPayload sealed;
    sealed.status = c.status;
    orb::MallocBytes* const parts[] = {&sealed.ciphertext, &sealed.ephemeral_key, &sealed.iv,
                                       &sealed.tag};
    for (int i = 0; i < 4; ++i) {
      if (i + 1 == c.missing) continue;
      parts[i]->data = static_cast<uint8_t*>(malloc(1));
      parts[i]->size = 1;
    }
    EXPECT_EQ(sealed.Complete("radio", c.salgo), c.want);
    if (c.want_log != nullptr) {
      EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, c.want_log)) << log_.Dump();
    }
  }
}

}  // namespace
}  // namespace orb::test
