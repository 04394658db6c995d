// Records of several threads at once, each with its writer and number in it.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace orb::test {

constexpr int kWriters = 4;
constexpr int kRecordsOfEach = 50;
constexpr size_t kLoadRecordBytes = 6;  // "<1:07>"

// `log` gets a record and its number, and returns once it is logged.
inline std::vector<std::thread> StartWriters(
    const std::function<void(const std::string&, int)>& log) {
  std::vector<std::thread> writers;
  for (int writer = 0; writer < kWriters; ++writer) {
    writers.emplace_back([log, writer] {
      for (int i = 0; i < kRecordsOfEach; ++i) {
        char record[16];
        snprintf(record, sizeof record, "<%d:%02d>", writer, i);
        log(record, i);
      }
    });
  }
  return writers;
}

inline void ExpectAllInOrder(const std::string& sent) {
  EXPECT_EQ(sent.size(), kWriters * kRecordsOfEach * kLoadRecordBytes);
  std::vector<int> next(kWriters, 0);
  for (size_t at = 0; at + kLoadRecordBytes <= sent.size(); at += kLoadRecordBytes) {
    int writer = -1;
    int record = -1;
    ASSERT_EQ(sscanf(sent.c_str() + at, "<%d:%d>", &writer, &record), 2) << sent.substr(at, 6);
    ASSERT_EQ(record, next.at(static_cast<size_t>(writer))++) << "order of one thread";
  }
}

// How many descriptors this process has open.
inline size_t OpenDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(all), end(all)));
}

}  // namespace orb::test
