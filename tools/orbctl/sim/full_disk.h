// A full disk without one: while it is on, what the C library's fwrite puts into
// a file below the directory ends with ENOSPC, like a write to a disk whose last
// free block is taken.
//
// The last block of a file still takes bytes, as it would on a disk, so that a
// record may be torn. The call reaches this by the linker's --wrap; other files
// and other functions of the process are not touched. The client's sequence file
// is rewritten in place, for which a full disk has room.
#pragma once

#include <string>

namespace orb::orbctl {

// Thread-safe. `directory` is below what counts; empty: there is room again.
void SetFullDisk(const std::string& directory);

}  // namespace orb::orbctl
