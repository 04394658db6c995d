// Files that are either not there or whole: a crash or a full disk leaves
// nothing half-written under a name that somebody reads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "utility/result.h"

namespace orb::services {

// Creates `name` in the directory, writes `content` and waits until it is on
// the medium. The name must not exist. 0, or an errno value; then nothing of
// the file remains.
int WriteNewFile(int dir_fd, const std::string& name, std::span<const uint8_t> content);

// Fills `piece` with the content from `offset` on; pieces are asked for in order, each
// once. 0, or an errno value, with which the writing ends.
using ContentSource = std::function<int(uint64_t offset, std::span<uint8_t> piece)>;

// Like the other WriteNewFile, for content that is not in memory as a whole: it is asked
// for and written in pieces of at most 256 KiB.
int WriteNewFile(int dir_fd, const std::string& name, uint64_t bytes, const ContentSource& content);

// Replaces `name` in the directory by way of `name`.tmp. 0, or an errno value;
// then the old content is still there.
int ReplaceFile(int dir_fd, const std::string& name, std::span<const uint8_t> content);

// Reads all of a regular file of at most `max_bytes`, following no link. The error's number
// is EFBIG for a longer one and EINVAL for what is no regular file; its text is the system's.
Result<std::vector<uint8_t>> ReadWholeFile(int dir_fd, const std::string& name, size_t max_bytes);

}  // namespace orb::services
