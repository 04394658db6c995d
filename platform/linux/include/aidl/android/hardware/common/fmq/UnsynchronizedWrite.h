// Flavour of a message queue, for its type only: one writer that overwrites what slow readers have
// not read.
#pragma once

#include <cstdint>

namespace aidl::android::hardware::common::fmq {

enum class UnsynchronizedWrite : int8_t {
  EMPTY = 0,
};

}  // namespace aidl::android::hardware::common::fmq
