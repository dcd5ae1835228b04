#include <stdio.h>

#include "firmware_updater.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: %s UPDATE_FILE\n", argv[0]);
    return 2;
  }
  const bool skip_identity_check = false;
  const bool extended_erase = false;
  const bool bootloader_only = false;
  const bool updated =
      update_usb_device("", argv[1], skip_identity_check, extended_erase, bootloader_only);
  if (!updated) {
    printf("result: failed, last error %d\n", get_last_error());
    return 1;
  }
  puts("result: updated");
  char name[4] = ""; /* three letters; the library writes no terminator */
  for (uint32_t i = 0; get_resetted_modules(name, i); ++i) printf("reset module: %s\n", name);
  return 0;
}
