// Tested by tests/integration/.
#include "tools/orbctl/control_client.h"

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <orb_platform/look_up.h>

#include <nlohmann/json.hpp>

#include "services/manager/control/control_call.h"
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

Result<sp<android::IBinder>> ConnectToManager() {
  const sp<android::ProcessState> process = android::ProcessState::self();
  if (process == nullptr) {
    return Error{
        "no bus can be reached; start it, set ORB_BUS_ADDRESS to the one in use, or check who may "
        "use it"};
  }
  process->startThreadPool();
  sp<android::IBinder> manager = android::defaultServiceManager()->checkService(
      android::String16(manager::kControlServiceName));
  if (manager == nullptr) return Error{WhyNotFound()};
  return manager;
}

}  // namespace

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

manager::ControlRequest RequestOf(manager::ControlRequest::Call call, const std::string& client) {
  manager::ControlRequest request;
  request.set_call(call);
  request.set_client(client);
  return request;
}

Result<manager::ControlReply> AskManager(const manager::ControlRequest& request) {
  const Result<sp<android::IBinder>> manager = ConnectToManager();
  if (!manager.ok()) return manager.error();
  manager::ControlReply reply;
  const Status status = manager::CallControl(*manager, request, &reply);
  if (!status.isOk()) return Error{CallError(status)};
  return reply;
}

int PrintReply(const Result<manager::ControlReply>& reply, const std::string& done, bool json) {
  if (!reply.ok()) return Fail(reply.error().text);
  const bool ok = reply->status() == manager::ControlReply::DONE;
  const std::string& message = reply->message();
  if (json) {
    PrintLine(
        nlohmann::ordered_json{{"done", ok}, {"result", reply->result()}, {"message", message}}
            .dump(-1, ' ', true, nlohmann::json::error_handler_t::replace));
  }
  if (!ok) return Fail(message);
  if (!json) PrintLine(message.empty() ? done : done + " (" + message + ")");
  return kOk;
}

}  // namespace orb::orbctl
