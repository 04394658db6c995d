// The same headers from C++.
#include <orb_encrypt.h>
#include <orb_event_log.h>
#include <orb_sdk.h>

#include <cstdio>

int main() {
  if (kiv_get_api_version() != KIV_API_VERSION || kiv_flush(nullptr) != -1) return 1;
  std::printf("c++ consumer: api version %u\n", kiv_get_api_version());
  return 0;
}
