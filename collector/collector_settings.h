// What a collector keeps of its registration record, unchanged for its life.
#pragma once

#include <cstdint>
#include <string>

#include "orb_sdk.h"

struct CollectorSettings {
  // Copies; the record is packed, so no field of it is ever referred to.
  explicit CollectorSettings(const kiv_cfg_s& record);

  // All slots together. Aborts when that does not fit.
  uint32_t SlotsBytes() const;

  const std::string name;
  const std::string data_dir;
  const uint32_t registration_arg1;
  const uint32_t registration_arg2;
  const kiv_start_session_cb start_session_cb;  // May be null.
  const kiv_stop_session_cb stop_session_cb;    // May be null.
  const uint32_t client_mode;
  const bool sync_register;
  const bool custom_session_format;
  const bool hbt;
  const bool allocate_fd;       // This and the next two: false or 0 without hbt.
  const uint32_t fd_slot_size;  // Bytes.
  const uint32_t fd_nof_slots;
  const uint32_t compress_loc;  // Where slots are compressed: 0, by the receiver.
  const uint32_t compress_type;
  const bool header_override;
  const uint8_t header_kind;
  const uint32_t header_version;
};
