// orbctl key new DIR: the key pair of a data owner.
#pragma once

#include <string>

namespace orb::orbctl {

// Writes DIR/private.pem (readable by its owner only) and DIR/public.pem, a
// P-256 pair; creates DIR, replaces nothing. The exit code.
int NewKey(const std::string& directory, bool json);

}  // namespace orb::orbctl
