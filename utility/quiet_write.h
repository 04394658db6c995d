// Writing to a descriptor that a stranger reads, without the signal that ends the
// host when the reader is gone.
#pragma once

#include <limits.h>
#include <signal.h>

#include <cstddef>
#include <string>
#include <string_view>

#include "utility/unique_fd.h"

namespace orb {

// While it lives, writes of this thread raise no SIGPIPE, neither then nor later. The
// host's disposition of the signal stays.
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

// Writes all of the text, blocking. 0 or errno; EPIPE when the reader is gone.
int QuietWrite(int fd, const std::string& text);

// Offers lines to a descriptor of the host's, such as its standard output, and never
// waits for a reader: lines that a full pipe, socket or terminal does not take at once
// are dropped, as are all that follow. A file takes them as quickly as its disk. The
// descriptor's flags, which the host shares, stay as they are. Allocates nothing.
class LineOffer {
 public:
  // `fd` is borrowed; it may also be closed.
  explicit LineOffer(int fd);
  // Offers the lines that are left.
  ~LineOffer() { Flush(); }
  LineOffer(const LineOffer&) = delete;
  LineOffer& operator=(const LineOffer&) = delete;

  // `line` ends with a line feed and has at most PIPE_BUF bytes. False once lines
  // are dropped: the caller may stop offering them.
  bool Add(std::string_view line);

 private:
  enum class Kind { kSocket, kNonBlocking, kPolled, kFile };

  void Flush();
  bool Take() const;

  const PipeSignalHeld held_;
  int fd_;
  Kind kind_;
  UniqueFd own_;  // kNonBlocking: a second descriptor of the same pipe or terminal.
  size_t piece_bytes_ = 0;
  char piece_[PIPE_BUF] = {};
  bool dropping_ = false;
};

}  // namespace orb
