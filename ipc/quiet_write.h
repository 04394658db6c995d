// Writing to a descriptor that a stranger reads.
#pragma once

#include <string>

// Writes all of it, blocking. 0 or errno: EPIPE when nobody reads any more,
// without the signal, which would end the host.
int QuietWrite(int fd, const std::string& text);
