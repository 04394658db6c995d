// A binary events dump, decoded as text and as JSON.
#include <sstream>

#include "fuzz/fuzz_input.h"
#include "fuzz/memory_file.h"
#include "tools/orbctl/event_decode.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const orb::fuzz::MemoryFile file(data, size);
  int results[2];
  for (const bool json : {false, true}) {
    std::ostringstream out;
    std::ostringstream err;
    results[json] = orb::orbctl::RunEventDecode({file.path(), "", json}, out, err);
    FUZZ_CHECK(results[json] == (err.str().empty() ? 0 : 1));
  }
  FUZZ_CHECK(results[0] == results[1]);
  return 0;
}
