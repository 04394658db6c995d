// The C functions: each checks its pointers and forwards to the collector. Those that
// may allocate there turn an exception into an error line and a failure.
// Tested by tests/collector/c_api_test.c and lifecycle_test.cpp.
#include <cstddef>
#include <memory>

#include "collector/kiv_collector.h"
#include "utility/contained.h"
#include "utility/fork_guard.h"
#include "utility/log.h"

using orb::fork_guard::Refuses;

namespace {

// The record's layout is part of the interface.
constexpr bool kRecordIsLaidOut =
    sizeof(kiv_cfg_s) == 70 && offsetof(kiv_cfg_s, name) == 0 &&
    offsetof(kiv_cfg_s, registration_arg1) == 8 && offsetof(kiv_cfg_s, data_dir) == 12 &&
    offsetof(kiv_cfg_s, start_session_cb) == 20 && offsetof(kiv_cfg_s, stop_session_cb) == 28 &&
    offsetof(kiv_cfg_s, client_mode) == 36 && offsetof(kiv_cfg_s, hbt) == 40 &&
    offsetof(kiv_cfg_s, allocate_fd) == 41 && offsetof(kiv_cfg_s, fd_slot_size) == 42 &&
    offsetof(kiv_cfg_s, fd_nof_slots) == 46 && offsetof(kiv_cfg_s, fd_arg3) == 50 &&
    offsetof(kiv_cfg_s, fd_arg4) == 54 && offsetof(kiv_cfg_s, custom_session_format) == 58 &&
    offsetof(kiv_cfg_s, header_override) == 59 && offsetof(kiv_cfg_s, header_kind) == 60 &&
    offsetof(kiv_cfg_s, header_version) == 61 && offsetof(kiv_cfg_s, registration_arg2) == 65 &&
    offsetof(kiv_cfg_s, sync_register) == 69;
static_assert(kRecordIsLaidOut, "kiv_cfg_s: not the layout that clients fill");
static_assert(sizeof(kiv_blob_segment_t) == 16, "kiv_blob_segment_t: not the layout clients fill");

using orb::Contained;

struct Destroy {
  void operator()(kiv_collector* c) const {
    // Unroute() fails only if the process-wide client cannot be made; it routes nothing then.
    Contained("orb_deregister", [&] { c->Unroute(); });
    delete c;
  }
};
using OwnedCollector = std::unique_ptr<kiv_collector, Destroy>;

kiv_collector* Register(const kiv_cfg_s* cfg) {
  OwnedCollector c(new kiv_collector(cfg));
  if (c->Register() == 0) return c.release();
  LOGE("%s: registration failed %d", c->name().c_str(), -1);
  return nullptr;
}

}  // namespace

extern "C" {

kiv_collector* kiv_register(kiv_cfg_s* cfg) {
  if (Refuses(__func__)) return nullptr;
  LOGI("orb_register: custom_session_format %d", static_cast<int>(cfg->custom_session_format));
  if (cfg->name == nullptr || cfg->data_dir == nullptr) {
    LOGE("orb_register: %s is null", cfg->name == nullptr ? "name" : "data_dir");
    return nullptr;
  }
  if (!orb::fork_guard::Watch()) {
    LOGE("orb_register: no memory to watch for forks");
    return nullptr;
  }
  kiv_collector* const none = nullptr;
  return Contained("orb_register", none, [&] { return Register(cfg); });
}

int kiv_deregister(kiv_collector* c) {
  if (Refuses(__func__)) {
    if (c != nullptr && c->AdoptInChild()) delete c;
    return -1;
  }
  if (c == nullptr) return -1;
  const OwnedCollector owned(c);
  return Contained("orb_deregister", -1, [&] { return c->DeRegister(); });
}

int kiv_log(kiv_collector* c, uint32_t kpi_id, uint32_t value) {
  if (Refuses(__func__) || c == nullptr) return -1;
  return Contained("orb_log", -1, [&] { return c->Log(kpi_id, value); });
}

int kiv_log_event(kiv_collector* c, uint32_t kpi_id, uint32_t arg) {
  return Refuses(__func__) || c == nullptr ? -1 : c->LogEvent(kpi_id, arg);
}

int kiv_log_state(kiv_collector* c, uint32_t kpi_id, uint32_t a, uint32_t b) {
  return Refuses(__func__) || c == nullptr ? -1 : c->LogState(kpi_id, a, b);
}

int kiv_log_blob(kiv_collector* c, uint32_t kpi_id, const uint8_t* buf, uint32_t len) {
  if (Refuses(__func__) || c == nullptr) return -1;
  return Contained("orb_log_blob", -1, [&] { return c->Log(kpi_id, buf, len); });
}

int kiv_log_blob_segments(kiv_collector* c, uint32_t kpi_id, kiv_blob_segment_t* segs,
                          uint32_t count) {
  if (Refuses(__func__) || c == nullptr) return -1;
  return Contained("orb_log_blob_segments", -1, [&] { return c->Log(kpi_id, segs, count); });
}

int kiv_log_buf(kiv_collector* c, const uint8_t* buf, uint32_t len) {
  if (Refuses(__func__)) return -1;
  LOGI("orb_log_buf: called");
  return c == nullptr ? -1 : Contained("orb_log_buf", -1, [&] { return c->LogBuf(buf, len); });
}

int kiv_flush(kiv_collector* c) {
  if (Refuses(__func__) || c == nullptr) return -1;
  return Contained("orb_flush", [&] { c->Flush(); }) ? 0 : -1;
}

int kiv_set_cfg(kiv_collector* c, kiv_param_type_t type, uint32_t value) {
  if (Refuses(__func__) || c == nullptr) return -1;
  if (type == KIV_PARAM_SIZE_THRESHOLD || type == KIV_PARAM_TIME_THRESHOLD) {
    c->SetConfigParams(type, value);
  }
  return 0;
}

int kiv_is_kpi_enabled(kiv_collector* c, uint32_t kpi_id) {
  return Refuses(__func__) || c == nullptr ? -1 : c->IsKPIEnabled(kpi_id);
}

kiv_fd_handle_s* kiv_set_fd(kiv_collector* c, int fd, uint32_t offset, uint32_t length,
                            kiv_fd_done_cb done) {
  kiv_fd_handle_s* const none = nullptr;
  if (Refuses(__func__) || c == nullptr) return none;
  return Contained("orb_set_fd", none, [&] { return c->SetFD(fd, offset, length, done); });
}

int kiv_log_fd_buf(kiv_fd_handle_s* h, uint64_t /*unused*/, uint64_t offset, uint32_t len) {
  if (Refuses(__func__) || h == nullptr || h->collector == nullptr) return -1;
  return Contained("orb_log_fd_buf", -1, [&] {
    return h->collector->FdWrite(h->fdToken, offset, static_cast<uint32_t>(offset), len);
  });
}

int kiv_unset_fd(kiv_fd_handle_s* h) {
  if (Refuses(__func__) || h == nullptr || h->collector == nullptr) return -1;
  return Contained("orb_unset_fd", -1, [&] { return h->collector->UnsetFD(h, h->fdToken); });
}

uint32_t kiv_get_api_version(void) { return KIV_API_VERSION; }

int kiv_get_campaign_id(kiv_collector* c, uint64_t* out) {
  if (Refuses(__func__) || c == nullptr || out == nullptr) return -1;
  *out = c->GetCampaignId();
  return 0;
}

}  // extern "C"
