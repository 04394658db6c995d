// The client's orb_sdk.conf: any bytes.
#include "fuzz/fuzz_input.h"
#include "fuzz/memory_file.h"
#include "utility/conf.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const orb::fuzz::MemoryFile file(data, size);
  Conf conf;
  FUZZ_CHECK(Conf::ReadFile(file.path(), &conf));
  return 0;
}
