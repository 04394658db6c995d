// orb-hald: the system HAL of an ordinary Linux system.
#include <android/binder_manager.h>

#include <cinttypes>

#include "services/common/service_host.h"
#include "services/hal/orbsyshal_service.h"
#include "utility/log.h"

// What nobody catches ends the program, as it should.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char** argv) {
  CLI::App app("Keeps the uploads of telemetry clients as files.", "orb-hald");
  std::string directory;
  uint64_t max_bytes = 0;
  app.add_option("--spool", directory, "Folder of the uploads")->type_name("DIR")->required();
  app.add_option("--max-bytes", max_bytes,
                 "Most bytes of the disk to use; the oldest uploads go first (0: no limit)")
      ->type_name("N");
  size_t folders_per_user = orb::hal::FolderOwners::kFoldersPerUser;
  app.add_option("--folders-per-user", folders_per_user, "Most folders of one user")
      ->capture_default_str()
      ->check(CLI::Range(size_t{1}, orb::hal::FolderOwners::kMaxFolders))
      ->type_name("N");
  const int code = orb::services::ParseCommandLine(&app, argc, argv);
  if (code >= 0) return code;

  orb::services::ServiceHost host;
  auto spool = orb::hal::Spool::Open(directory, max_bytes);
  if (!spool.ok()) return orb::services::CannotStart(app, spool.error());
  auto owners = orb::hal::FolderOwners::Open(directory, folders_per_user);
  if (!owners.ok()) return orb::services::CannotStart(app, owners.error());
  LOGI("%s holds %" PRIu64 " bytes", directory.c_str(), (*spool)->StoredBytes());
  const auto hal = std::make_shared<orb::hal::Hal>(*std::move(spool), *std::move(owners));
  const auto service = ::ndk::SharedRefBase::make<orb::hal::OrbsyshalService>(hal);
  host.Add(
      orb::hal::kHalServiceName,
      [&] {
        return AServiceManager_addService(service->asBinder().get(), orb::hal::kHalServiceName) ==
               EX_NONE;
      },
      [] {
        return ::ndk::SpAIBinder(AServiceManager_checkService(orb::hal::kHalServiceName)).get() !=
               nullptr;
      });
  const int result = host.Run();
  if (!hal->FinishBy(std::chrono::steady_clock::now() + std::chrono::seconds(2))) {
    LOGW("a client has not taken note of a slot; ending all the same");
  }
  // The bus keeps the order: when it answers this, it has all that was sent before.
  static_cast<void>(
      ::ndk::SpAIBinder(AServiceManager_checkService("vendor.nuv.orbsyshal_aidl.last_call")));
  orb::services::ServiceHost::Exit(result);
}
