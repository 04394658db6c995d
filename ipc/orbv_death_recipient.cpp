// Tested by tests/ipc/manager_client_test.cpp.
#include "ipc/orbv_death_recipient.h"

#include <memory>

#include "ipc/kiv_aidl_client.h"
#include "utility/contained.h"
#include "utility/log.h"

void OrbvDeathRecipient::binderDied(const ::android::wp<::android::IBinder>&) {
  LOGI("OrbvDeathRecipient - ORB Server has died");
  orb::Contained("binderDied", [] {
    const std::shared_ptr<kivAIDLClient> client = kivAIDLClient::getClientInstance();
    if (client != nullptr) client->processLostManagerConn();
  });
}
