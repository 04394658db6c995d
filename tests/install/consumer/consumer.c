/* Calls the installed library; needs no services. */
#include <orb_encrypt.h>
#include <orb_event_log.h>
#include <orb_sdk.h>
#include <stdio.h>

int main(void) {
  uint8_t byte = 'a';
  if (kiv_get_api_version() != KIV_API_VERSION) return 1;
  if (kiv_log(NULL, 1, 1) != -1) return 2;
  if (KIVCommonHashFn(&byte, 1) != 0x240C292Cu) return 3;
  if (orb_encrypt(1, 1, NULL, NULL, 0, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL) != 1) {
    return 4;
  }
  printf("c consumer: api version %u\n", kiv_get_api_version());
  return 0;
}
