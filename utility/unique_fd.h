// An owned file descriptor, closed on destruction; .ok() or .get() >= 0 tells whether it holds one.
#pragma once

#include <android-base/unique_fd.h>

namespace orb {
using UniqueFd = android::base::unique_fd;
}  // namespace orb
