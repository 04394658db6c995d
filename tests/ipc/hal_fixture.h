// The process-wide client with a HAL of this process, and a region to announce to it.
#pragma once

#include <cutils/ashmem.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/ipc/client_fixture.h"
#include "tests/ipc/fake_hal.h"
#include "utility/unique_fd.h"

namespace orb::test {

class HalClientTest : public ClientTest {
 protected:
  ~HalClientTest() override {
    if (hal_ != nullptr) KillHal();
  }

  void StartHal() {
    hal_ = FakeHal::Make();
    ASSERT_TRUE(hal_->Publish());
  }
  // Returns when the client has forgotten it.
  void KillHal() {
    const bool linked = all_deaths_.Contains("Registered orbsyshal death recipient");
    Services()->Kill(FakeHal::kService);
    hal_ = nullptr;
    if (!linked) return;
    EXPECT_TRUE(all_deaths_.WaitFor("OrbsyshalDeathRecipeint - Orbsyshal Server has died"));
    while (!all_deaths_.Contains("UnsetFD: orbsyshal handle is null")) {
      client_->UnsetFD("", 0);
      std::this_thread::yield();
    }
    all_deaths_.Clear();
  }
  // The HAL answers calls of this method so, from now on.
  void Script(const std::string& method, FakeHal::Answer answer) {
    hal_->SetScript([=](const std::string& called) {
      return called == method ? answer : FakeHal::Answer::kNormal;
    });
  }

  int Send(const std::vector<uint8_t>& header, const std::vector<uint8_t>& data,
           const std::vector<uint8_t>& footer) {
    return client_->sendData(
        "tok", "/up/7/radio.1", header.data(), static_cast<uint32_t>(header.size()), data.data(),
        static_cast<uint32_t>(data.size()), footer.data(), static_cast<uint32_t>(footer.size()));
  }
  int Announce(uint32_t region) {
    return client_->FdWrite("tok", region, "name", {7, 8}, 16, 4, COMPRESS_NONE);
  }
  // A region of a registered client, whose completions go to on_complete.
  kiv_fd_handle_s* NewRegion() {
    kiv_collector* const collector = Register("radio");
    EXPECT_NE(collector, nullptr);
    return NewRegion(collector);
  }
  kiv_fd_handle_s* NewRegion(kiv_collector* collector) {
    return kiv_set_fd(collector, fd_.get(), 0, 64,
                      [](kiv_fd_handle_s* h, uint32_t a, uint32_t b, int c) {
                        on_complete(h, a, b, c);
                        return 0;
                      });
  }

  static inline std::function<void(kiv_fd_handle_s*, uint32_t, uint32_t, int)> on_complete;
  const orb::UniqueFd fd_{ashmem_create_region("region", 64)};
  std::shared_ptr<FakeHal> hal_;

 private:
  LogCapture all_deaths_;  // Since the HAL was last killed.
};

}  // namespace orb::test
