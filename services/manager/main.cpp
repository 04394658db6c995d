// orb-managerd: the manager of an ordinary Linux system.
#include <binder/IServiceManager.h>

#include <cstdio>
#include <cstdlib>

#include "services/common/service_host.h"
#include "services/manager/hal_watch.h"
#include "services/manager/manager_service.h"
#include "utility/log.h"

namespace {

// systemd makes the folder and tells where it is.
std::string DefaultState() {
  const char* folder = secure_getenv("STATE_DIRECTORY");
  return folder != nullptr && *folder != '\0' ? folder : "/var/lib/orb-managerd";
}

void Publish(orb::services::ServiceHost* host, const char* name,
             const android::sp<android::IBinder>& service) {
  const android::String16 name16(name);
  host->Add(
      name,
      [name16, service] {
        return android::defaultServiceManager()->addService(name16, service) == android::OK;
      },
      [name16] { return android::defaultServiceManager()->checkService(name16) != nullptr; });
}

}  // namespace

// What nobody catches ends the program, as it should.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char** argv) {
  CLI::App app("Registers telemetry clients and runs campaigns on them.", "orb-managerd");
  std::string state = DefaultState();
  app.add_option("--state", state, "Folder that keeps client ids and campaigns")
      ->capture_default_str()
      ->type_name("DIR");
  size_t names_per_user = orb::manager::StateStore::kNamesPerUser;
  app.add_option("--names-per-user", names_per_user, "Most client names of one user")
      ->capture_default_str()
      ->check(CLI::Range(size_t{1}, orb::manager::StateStore::kMaxClients))
      ->type_name("N");
  const int code = orb::services::ParseCommandLine(&app, argc, argv);
  if (code >= 0) return code;

  orb::services::ServiceHost host;
  auto store = orb::manager::StateStore::Open(state, names_per_user);
  if (!store.ok()) return orb::services::CannotStart(app, store.error());
  const auto manager = std::make_shared<orb::manager::CampaignManager>(*std::move(store));
  const android::sp<orb::manager::ManagerService> clients(
      new orb::manager::ManagerService(manager));
  const android::sp<orb::manager::ControlService> operators(
      new orb::manager::ControlService(manager));
  Publish(&host, orb::manager::kManagerServiceName, clients);
  Publish(&host, orb::manager::kControlServiceName, operators);
  orb::manager::HalWatch hal([manager] { manager->HalCame(); }, [manager] { manager->HalDied(); });
  manager->LookForHalWith([&hal] { hal.Look(); });
  const int result = host.Run();
  if (!manager->StopBy(std::chrono::steady_clock::now() + std::chrono::seconds(2))) {
    LOGW("a client has not answered; ending all the same");
  }
  orb::services::ServiceHost::Exit(result);
}
