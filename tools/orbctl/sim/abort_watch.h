// Keeps the tool alive when the library ends its process: a sum of a window that no
// longer fits aborts, as it would on a device, and the trial reports that.
#pragma once

#include <functional>

namespace orb::orbctl {

enum class RunEnd {
  kReturned,       // The work is done.
  kAborted,        // abort() was called by the work's own thread,
  kAbortedBeside,  // or by any other thread.
};

// Runs `work` on a thread of its own and answers how that ended. A thread that calls
// abort() stands still for ever, with every lock that it holds, and so does the work
// once it needs one of them: the caller reports and then leaves by _exit(). After an
// abort, a further one ends the process. Once in a process.
RunEnd RunWatched(const std::function<void()>& work);

}  // namespace orb::orbctl
