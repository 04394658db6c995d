// What operators ask for and are told, through the proxy.
#include <binder/IServiceManager.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "orb_platform/local_service_manager.h"
#include "services/manager/manager_service.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"

namespace orb::manager {
namespace {

using android::sp;

TEST(ControlTest, CarriesRequestsAndAnswersThroughTheProxy) {
  LogCapture log;
  const orb::test::TempDir temp;
  const sp<orb_platform::LocalServiceManager> services(new orb_platform::LocalServiceManager());
  android::setDefaultServiceManager(services);
  std::string error;
  std::unique_ptr<StateStore> store = StateStore::Open(temp.path(), &error);
  store->ClientId("radio");
  SavedCampaign saved;
  saved.set_camp_id(-9);
  saved.add_lic_keys()->set_lic_sn(42);
  saved.add_stopped_lic_sns(77);
  store->SetCampaign("radio", saved);
  const sp<ControlService> service(
      new ControlService(std::make_shared<CampaignManager>(std::move(store))));
  const android::String16 name(IOrbControl::kServiceName);
  ASSERT_EQ(services->addService(name, service), android::OK);
  const sp<IOrbControl> control = IOrbControl::asInterface(services->checkService(name));
  ASSERT_NE(control, nullptr);

  std::vector<ClientRecord> clients;
  ASSERT_TRUE(control->listClients(&clients).isOk());
  ASSERT_EQ(clients.size(), 1U);
  EXPECT_EQ(clients[0].name, "radio");
  EXPECT_EQ(clients[0].clientId, 1);
  EXPECT_FALSE(clients[0].connected);
  EXPECT_EQ(clients[0].session, ClientRecord::WAITING);
  EXPECT_EQ(clients[0].campId, -9);
  EXPECT_EQ(clients[0].licSNs, (std::vector<int64_t>{42}));
  EXPECT_EQ(clients[0].stoppedLicSNs, (std::vector<int64_t>{77}));

  ControlReply reply;
  KIVCampConfig config;
  config.campId = 1;
  ASSERT_TRUE(control->startCampaign("radio", config, &reply).isOk());
  EXPECT_EQ(reply.status, ControlReply::REFUSED);
  EXPECT_EQ(reply.message, "radio is not connected");
  ASSERT_TRUE(control->startLicSN("gps", 42, &reply).isOk());
  EXPECT_EQ(reply.message, "no client is called gps; see orbctl client list");
  ASSERT_TRUE(control->stopLicSN("gps", 42, &reply).isOk());
  EXPECT_EQ(reply.message, "no client is called gps; see orbctl client list");
  ASSERT_TRUE(control->dumpClient("radio", UniqueFd(dup(1)), &reply).isOk());
  EXPECT_EQ(reply.message, "radio is not connected");
  ASSERT_TRUE(control->stopCampaign("radio", &reply).isOk());
  EXPECT_EQ(reply.status, ControlReply::DONE);
  android::setDefaultServiceManager(nullptr);
}

}  // namespace
}  // namespace orb::manager
