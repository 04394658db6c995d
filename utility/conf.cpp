// The configuration file: one "key = value" a line, '#' starts a comment line.
// Tested by tests/collector/conf_test.cpp.
#include "utility/conf.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "utility/contained.h"
#include "utility/files.h"
#include "utility/log.h"

namespace {

struct Key {
  const char* name;
  int32_t Conf::*value;
};

// The settings, in the order in which they are logged.
constexpr Key kKeys[] = {
    {"register_max_retries", &Conf::register_max_retries},
    {"register_retry_wait_sec", &Conf::register_retry_wait_sec},
    {"blob_size_min_bytes", &Conf::blob_size_min_bytes},
    {"blob_size_max_bytes", &Conf::blob_size_max_bytes},
    {"blob_sample_rate_max", &Conf::blob_sample_rate_max},
    {"size_threshold_min_bytes", &Conf::size_threshold_min_bytes},
    {"size_threshold_max_bytes", &Conf::size_threshold_max_bytes},
    {"time_threshold_min_sec", &Conf::time_threshold_min_sec},
    {"time_threshold_max_sec", &Conf::time_threshold_max_sec},
    {"cfg_payload_max_bytes", &Conf::cfg_payload_max_bytes},
    {"nof_kpis_max", &Conf::nof_kpis_max},
    {"hist_nof_buckets_max", &Conf::hist_nof_buckets_max},
    {"blob_segments_optimized", &Conf::blob_segments_optimized},
};

// The log leaves out so many characters of a path, and shorter paths altogether.
constexpr size_t kPathSkipChars = 17;

// Every Conf ever published stays reachable, newest first: readers keep
// references without a lock. One with equal values is published again, so that
// a client that registers again and again does not grow.
struct Published {
  Conf conf;
  const Published* previous = nullptr;
};

constinit const Published first_published{};
constinit std::atomic<const Published*> newest{&first_published};
constinit std::atomic<const Published*> in_force{&first_published};

const Published* FindEqual(const Conf& conf) {
  const Published* found = newest.load(std::memory_order_acquire);
  while (found != nullptr && found->conf != conf) found = found->previous;
  return found;
}

void Publish(const Conf& conf) {
  const Published* found = FindEqual(conf);
  if (found == nullptr) {
    auto* published = new Published{conf, newest.load(std::memory_order_acquire)};
    while (
        !newest.compare_exchange_weak(published->previous, published, std::memory_order_acq_rel)) {
    }
    found = published;
  }
  in_force.store(found, std::memory_order_release);
}

void ApplyLine(const std::string& line, Conf* conf) {
  const size_t first = line.find_first_not_of(" \t\n\v\f\r");
  if (first == std::string::npos || line[first] == conf->comment_character) return;
  const size_t separator = line.find(conf->separator_character);
  if (separator == std::string::npos) return;
  const std::string name = Conf::trim(line.substr(0, separator));
  const std::string text = Conf::trim(line.substr(separator + 1));
  for (const Key& key : kKeys) {
    if (name != key.name) continue;
    const auto number = static_cast<int32_t>(std::strtol(text.c_str(), nullptr, 10));
    if (number == 0) {
      static constexpr Conf kDefaults;
      LOGI("ignore value 0 for %s from conf_file - using default value %d", key.name,
           kDefaults.*key.value);
    } else {
      conf->*key.value = number;
    }
    return;
  }
}

// A buffer that getline allocates and grows.
struct Line {
  Line() = default;
  Line(const Line&) = delete;
  Line& operator=(const Line&) = delete;
  ~Line() { free(text); }
  char* text = nullptr;
  size_t capacity_bytes = 0;
};

void ApplyFile(FILE* file, Conf* conf) {
  Line line;
  for (ssize_t length; (length = getline(&line.text, &line.capacity_bytes, file)) >= 0;) {
    ApplyLine(std::string(line.text, static_cast<size_t>(length)), conf);
  }
}

}  // namespace

std::string Conf::trim(const std::string& text) {
  static constexpr Conf kDefaults;
  const size_t first = text.find_first_not_of(kDefaults.whitespace);
  if (first == std::string::npos) return std::string();
  return text.substr(first, text.find_last_not_of(kDefaults.whitespace) - first + 1);
}

const Conf& Conf::Get() { return in_force.load(std::memory_order_acquire)->conf; }

bool Conf::ReadFile(const std::string& path, Conf* conf) {
  FILE* file = orb::Files::Open(path.c_str(), "re");
  if (file == nullptr) return false;
  const bool applied = orb::Contained("Conf", [&] { ApplyFile(file, conf); });
  (void)fclose(file);  // It was only read.
  if (!applied) errno = ENOMEM;
  return applied;
}

void Conf::Load(const std::string& data_dir) {
  Conf conf;
  const std::string path = data_dir + "orb_sdk.conf";
  if (!ReadFile(path, &conf) && path.size() > kPathSkipChars) {
    LOGI("cannot open config file %s - using default config", path.c_str() + kPathSkipChars);
  }
  for (const Key& key : kKeys) LOGI("Conf: %s = %d", key.name, conf.*key.value);
  Publish(conf);
}
