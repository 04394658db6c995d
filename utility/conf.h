// The library's tunable limits, process-wide.
//
// Every collector's construction builds a fresh Conf from the defaults and
// the client's "orb_sdk.conf" and publishes it; with several collectors the
// last one decides for all. A published Conf never changes and is never freed,
// so readers need no lock and may keep the reference; equal ones are one object.
#pragma once

#include <cstdint>
#include <string>

struct Conf {
  char comment_character = '#';
  char separator_character = '=';
  const char* whitespace = " \n\r\t\f\v";
  int32_t register_max_retries = 12;
  int32_t register_retry_wait_sec = 5;
  int32_t blob_size_min_bytes = 4;
  int32_t blob_size_max_bytes = 2097152;
  int32_t blob_sample_rate_max = 1000;
  int32_t size_threshold_min_bytes = 100;
  int32_t size_threshold_max_bytes = 4194304;
  int32_t time_threshold_min_sec = 1;
  int32_t time_threshold_max_sec = 86400;
  int32_t cfg_payload_max_bytes = 1048576;
  int32_t nof_kpis_max = 1024;
  int32_t hist_nof_buckets_max = 1024;
  int32_t blob_segments_optimized = 1;

  bool operator==(const Conf&) const = default;

  // `text` without leading and trailing whitespace.
  static std::string trim(const std::string& text);

  // The values in force; the defaults before the first collector. Any thread.
  static const Conf& Get();

  // Reads the file at `path` over *conf. False, with errno, when it cannot be opened.
  static bool ReadFile(const std::string& path, Conf* conf);

  // Reads data_dir + "orb_sdk.conf" over the defaults, logs every value and
  // makes the result the values in force. A missing file leaves the defaults.
  static void Load(const std::string& data_dir);
};
