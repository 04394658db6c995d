// A copy of the registration record; it does not change while the collector lives.
#pragma once

#include <cstdint>
#include <string>

#include "orb_sdk.h"

struct CollectorSettings {
  // The record is packed: copy its fields, since references to them are not aligned.
  explicit CollectorSettings(const kiv_cfg_s& record);

  // The bytes of all slots together. Aborts when they do not fit 32 bits.
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
  const bool allocate_fd;       // Without hbt, this and the next two are false or 0.
  const uint32_t fd_slot_size;  // Bytes.
  const uint32_t fd_nof_slots;
  const uint32_t compress_loc;  // 0: the receiver compresses slots; see header byte 30.
  const uint32_t compress_type;
  const bool header_override;
  const uint8_t header_kind;
  const uint32_t header_version;
};
