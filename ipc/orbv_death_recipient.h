// Hears of the manager's death. (The HAL's is heard by kivAIDLClient::serviceDied.)
#pragma once

#include <binder/IBinder.h>

// Stateless: tells the process-wide client. Runs on a binder thread.
class OrbvDeathRecipient : public ::android::IBinder::DeathRecipient {
 public:
  void binderDied(const ::android::wp<::android::IBinder>& who) override;
};
