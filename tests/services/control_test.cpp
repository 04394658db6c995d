// What operators and the manager say to each other, and who is heard.
#include "services/manager/control/control_call.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "services/manager/campaign_state.h"
#include "tests/services/campaign_manager_fixture.h"

namespace orb::manager {
namespace {

using android::sp;
using android::binder::Status;

// Answers every call with an OK and this descriptor.
class Answers : public android::BBinder {
 public:
  explicit Answers(UniqueFd fd) : fd_(std::move(fd)) {}
  const android::String16& getInterfaceDescriptor() const override { return ControlDescriptor(); }
  android::status_t onTransact(uint32_t, const android::Parcel&, android::Parcel* reply,
                               uint32_t) override {
    Status().writeToParcel(reply);
    return reply->writeUniqueFileDescriptor(fd_);
  }

 private:
  const UniqueFd fd_;
};

// What follows the method's code is no request: nothing of it may be read for others.
TEST_F(CampaignManagerTest, ControlAnswersOperatorsOnly) {
  const struct {
    uid_t caller;
    android::status_t status;
  } kCases[] = {
      {0, android::BAD_TYPE},
      {getuid(), android::BAD_TYPE},
      {getuid() + 1, android::OK},
      {kNoUser, android::OK},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.caller);
    const sp<ControlService> control = new ControlService(manager_, [&] { return c.caller; });
    android::Parcel reply;
    EXPECT_EQ(control->transact(kControlCall, {}, &reply), c.status);
    Status answer;
    if (c.status != android::OK) continue;
    EXPECT_EQ(answer.readFromParcel(reply), android::OK);
    EXPECT_EQ(answer.exceptionCode(), Status::EX_SECURITY);
    EXPECT_TRUE(log_.Contains("control refused to uid " + std::to_string(c.caller)));
  }
}

TEST_F(CampaignManagerTest, ControlReachesEveryCall) {
  const sp<ControlService> control = new ControlService(manager_, [] { return uid_t{0}; });
  const std::string call = " " + Register("radio", client_).token + " 9";
  const struct {
    ControlRequest::Call call;
    const char* message;
  } kSteps[] = {
      {ControlRequest::NONE, "orb-managerd does not know this request; is it older?"},
      {ControlRequest::START_CAMPAIGN, ""},
      {ControlRequest::STOP_LIC_SN, ""},
      {ControlRequest::START_LIC_SN, ""},
      {ControlRequest::DUMP_CLIENT, ""},
      {ControlRequest::RELEASE_CAMPAIGN, "no campaign of radio is in quarantine"},
      {ControlRequest::STOP_CAMPAIGN, ""},
      {ControlRequest::FORGET_CLIENT, "radio is connected; end its daemon first, or give --force"},
      {ControlRequest::LIST_CLIENTS, ""},
  };
  for (const auto& step : kSteps) {
    SCOPED_TRACE(ControlRequest::Call_Name(step.call));
    ControlRequest request;
    request.set_call(step.call);
    request.set_client("radio");
    request.set_lic_sn(77);
    *request.mutable_campaign() = Campaign(9);
    request.mutable_campaign()->set_early_deaths(kEarlyDeathsMax);  // Not an operator's.
    ControlReply reply;
    ASSERT_TRUE(CallControl(control, request, &reply).isOk());
    EXPECT_EQ(reply.message(), step.message);
    EXPECT_EQ(reply.status(), *step.message == 0 ? ControlReply::DONE : ControlReply::REFUSED);
    EXPECT_EQ(reply.dump().empty(), step.call != ControlRequest::DUMP_CLIENT);
    EXPECT_EQ(reply.clients_size(), step.call == ControlRequest::LIST_CLIENTS ? 1 : 0);
  }
  EXPECT_EQ(client_->Calls(),
            (std::vector<std::string>{"start" + call, "lic-stop" + call + " 77",
                                      "lic-start" + call + " 77", "stop" + call}));
}

TEST(ControlCallTest, CarriesALongListAndReadsOnlySealedReplies) {
  ControlReply list;
  for (int i = 0; i < 4096; ++i) {
    list.add_clients()->set_name(std::string(200, 'x') + std::to_string(i));
    for (int lic_sn = 0; lic_sn < 100; ++lic_sn) list.mutable_clients(i)->add_lic_sns(-lic_sn);
  }
  ASSERT_GT(list.ByteSizeLong(), size_t{4} << 20);
  ControlReply got;
  const std::string bytes = list.SerializeAsString();
  const auto* const data = reinterpret_cast<const uint8_t*>(bytes.data());
  EXPECT_TRUE(CallControl(new Answers(SealBytes({data, bytes.size()})), {}, &got).isOk());
  EXPECT_EQ(got.SerializeAsString(), bytes);

  int ends[2] = {-1, -1};
  ASSERT_EQ(pipe(ends), 0);
  const UniqueFd writer(ends[1]);
  UniqueFd huge(memfd_create("huge", MFD_ALLOW_SEALING));
  ASSERT_EQ(ftruncate(huge.get(), static_cast<off_t>(kMaxReplyBytes) + 1), 0);
  ASSERT_EQ(fcntl(huge.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_WRITE), 0);
  UniqueFd fds[] = {UniqueFd(ends[0]), UniqueFd(memfd_create("open", MFD_ALLOW_SEALING)),
                    SealBytes({data, 2}), std::move(huge)};
  for (UniqueFd& fd : fds) {
    EXPECT_EQ(CallControl(new Answers(std::move(fd)), {}, &got).transactionError(),
              android::BAD_VALUE);
  }
}

}  // namespace
}  // namespace orb::manager
