// The log limit that the program itself has set: some lines only the program may ask for.
// Exactly one of the two sources that define this is linked.
#pragma once

namespace orb {

// The lowest priority that the program itself lets through, by
// __android_log_set_minimum_priority. ANDROID_LOG_DEFAULT: it has set none, whatever
// its environment or the system's properties say. Any thread.
int ProgramLogLimit();

}  // namespace orb
