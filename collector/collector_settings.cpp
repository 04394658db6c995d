// Tested by tests/collector/lifecycle_test.cpp and session_test.cpp.
#include "collector/collector_settings.h"

#include "utility/checked.h"

namespace {

constexpr uint8_t kDefaultHeaderKind = 4;
constexpr uint32_t kDefaultHeaderVersion = 1;

}  // namespace

CollectorSettings::CollectorSettings(const kiv_cfg_s& record)
    : name(record.name),
      data_dir(record.data_dir),
      registration_arg1(record.registration_arg1),
      registration_arg2(record.registration_arg2),
      start_session_cb(record.start_session_cb),
      stop_session_cb(record.stop_session_cb),
      client_mode(record.client_mode),
      sync_register(record.sync_register != 0),
      custom_session_format(record.custom_session_format != 0),
      hbt(record.hbt != 0),
      allocate_fd(hbt && record.allocate_fd != 0),
      fd_slot_size(hbt ? record.fd_slot_size : 0),
      fd_nof_slots(hbt ? record.fd_nof_slots : 0),
      compress_loc(record.fd_arg3),
      compress_type(record.fd_arg4),
      header_override(record.header_override != 0),
      header_kind(header_override ? record.header_kind : kDefaultHeaderKind),
      header_version(header_override ? record.header_version : kDefaultHeaderVersion) {}

uint32_t CollectorSettings::SlotsBytes() const {
  return orb::CheckedMul<uint32_t>(fd_slot_size, fd_nof_slots);
}
