// Told when the manager dies. (kivAIDLClient::serviceDied is told when the HAL does.)
#pragma once

#include <binder/IBinder.h>

// Stateless: tells the process-wide client. Runs on a binder thread.
class OrbvDeathRecipient : public ::android::IBinder::DeathRecipient {
 public:
  void binderDied(const ::android::wp<::android::IBinder>& who) override;
};
