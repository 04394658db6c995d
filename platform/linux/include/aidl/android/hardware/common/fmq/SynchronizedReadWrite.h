// Flavour of a message queue, for its type only: one writer and one reader; a full queue refuses to
// write.
#pragma once

#include <cstdint>

namespace aidl::android::hardware::common::fmq {

enum class SynchronizedReadWrite : int8_t {
  EMPTY = 0,
};

}  // namespace aidl::android::hardware::common::fmq
