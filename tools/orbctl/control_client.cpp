// Tested by tests/integration/.
#include "tools/orbctl/control_client.h"

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <orb_platform/look_up.h>

#include <nlohmann/json.hpp>

#include "tools/orbctl/output.h"

namespace orb::orbctl {

using android::sp;
using android::binder::Status;

namespace {

constexpr char kNotAllowed[] = "only root and the manager's own user may do that; try sudo";

const char* WhyNotFound() {
  switch (orb_platform::LastLookUp()) {
    case android::PERMISSION_DENIED:
      return kNotAllowed;
    case android::TIMED_OUT:
      return "the manager does not answer the bus; see the log of orb-managerd";
    default:
      return "the manager is not on the bus; start orb-managerd";
  }
}

}  // namespace

sp<IOrbControl> ConnectToManager(std::string* error) {
  const sp<android::ProcessState> process = android::ProcessState::self();
  if (process == nullptr) {
    *error =
        "no bus can be reached; start it, set ORB_BUS_ADDRESS to the one in use, or check who may "
        "use it";
    return nullptr;
  }
  process->startThreadPool();
  const sp<android::IBinder> binder =
      android::defaultServiceManager()->checkService(android::String16(IOrbControl::kServiceName));
  if (binder == nullptr) {
    *error = WhyNotFound();
    return nullptr;
  }
  return IOrbControl::asInterface(binder);
}

std::string CallError(const Status& status) {
  if (status.exceptionCode() == Status::EX_SECURITY ||
      status.transactionError() == android::PERMISSION_DENIED) {
    return kNotAllowed;
  }
  if (status.transactionError() == android::FAILED_TRANSACTION) {
    return "the bus did not carry the call or its answer; see the log of orb-managerd";
  }
  if (status.transactionError() == android::DEAD_OBJECT) {
    return "the manager ended before it answered; see its log";
  }
  return std::string("the manager cannot be called: ") + status.toString8().c_str();
}

int PrintReply(const Status& status, const ControlReply& reply, const std::string& done,
               bool json) {
  if (!status.isOk()) return Fail(CallError(status));
  const bool ok = reply.status == ControlReply::DONE;
  if (json) {
    PrintLine(
        nlohmann::ordered_json{{"done", ok}, {"result", reply.result}, {"message", reply.message}}
            .dump(-1, ' ', true, nlohmann::json::error_handler_t::replace));
  }
  if (!ok) return Fail(reply.message);
  if (!json) PrintLine(reply.message.empty() ? done : done + " (" + reply.message + ")");
  return kOk;
}

}  // namespace orb::orbctl
