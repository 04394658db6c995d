// Says why a look-up found no service. Android's own functions only return null.
#pragma once

#include <utils/Errors.h>

namespace orb_platform {

// The result of the calling thread's last look-up on the bus: OK; NAME_NOT_FOUND when
// nobody owns the name; PERMISSION_DENIED when the bus does not let this user call the
// owner; TIMED_OUT when the owner has not answered; NO_INIT when no bus can be reached, or
// before the first look-up.
android::status_t LastLookUp();

}  // namespace orb_platform
