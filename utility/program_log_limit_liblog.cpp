// On a device, limits from outside are properties, which liblog keeps apart.
#include <android/log.h>

#include "utility/program_log_limit.h"

namespace orb {

int ProgramLogLimit() { return __android_log_get_minimum_priority(); }

}  // namespace orb
