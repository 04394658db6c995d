// The same as strerror, but safe on any thread.
#pragma once

#include <string>
#include <system_error>

namespace orb {

// The system's text for an errno value.
inline std::string ErrorText(int error) { return std::generic_category().message(error); }

}  // namespace orb
