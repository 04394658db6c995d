// Writing to a descriptor that a stranger reads, without the signal that ends the
// host when nobody reads any more.
#pragma once

#include <limits.h>
#include <signal.h>

#include <cstddef>
#include <string>
#include <string_view>

#include "utility/unique_fd.h"

namespace orb {

// While it lives, this thread gets no SIGPIPE, and none that it caused later. The
// disposition is the host's and stays.
class PipeSignalHeld {
 public:
  PipeSignalHeld();
  ~PipeSignalHeld();
  PipeSignalHeld(const PipeSignalHeld&) = delete;
  PipeSignalHeld& operator=(const PipeSignalHeld&) = delete;

 private:
  sigset_t pipe_{};
  sigset_t before_{};
  bool was_pending_ = false;
};

// Writes all of it, blocking. 0 or errno: EPIPE when nobody reads any more.
int QuietWrite(int fd, const std::string& text);

// Offers lines to a descriptor of the host's, such as its standard output, and never
// waits for a reader: lines that a full pipe, socket or terminal does not take at once
// are dropped, as are all that follow. A file takes them as quickly as its disk. The
// descriptor's flags, which the host shares, stay as they are. Allocates nothing.
class LineOffer {
 public:
  // `fd` is borrowed; it may also be closed.
  explicit LineOffer(int fd);
  // Offers what is left.
  ~LineOffer() { Flush(); }
  LineOffer(const LineOffer&) = delete;
  LineOffer& operator=(const LineOffer&) = delete;

  // `line` ends with a line feed and has at most PIPE_BUF bytes. False once lines
  // are being dropped: there is no point in more of them.
  bool Add(std::string_view line);

 private:
  enum class Kind { kSocket, kNonBlocking, kPolled, kFile };

  void Flush();
  bool Take() const;

  const PipeSignalHeld held_;
  int fd_;
  Kind kind_;
  UniqueFd own_;  // With kNonBlocking: the same pipe or terminal, opened once more.
  size_t piece_bytes_ = 0;
  char piece_[PIPE_BUF] = {};
  bool dropping_ = false;
};

}  // namespace orb
