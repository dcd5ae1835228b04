/* The public header as a C99 compiler sees it, and the exports called through it as carelessly as a
 * host may: with null pointers, empty texts and before any update.
 */
#include "firmware_updater.h"

#include <stdio.h>
#include <string.h>

static int failures = 0;

static void check(bool holds, const char* claim) {
  if (holds) return;
  ++failures;
  printf("FAILED: %s\n", claim);
}

static void check_before_any_update(void) {
  char name[4] = "xyz";
  check(sizeof(bool) == 1, "a bool takes one byte");
  check(get_last_error() == 0, "no failure has been stored");
  check(get_progress() <= -1.0f && get_progress() >= -1.0f, "the progress is -1");
  check(!get_resetted_modules(name, 0), "no module was reset");
  check(!get_resetted_modules(NULL, 0) && !get_resetted_modules(NULL, UINT32_MAX),
        "no buffer, no module");
  check(strcmp(name, "xyz") == 0, "the buffer is untouched");
}

int main(void) {
  check_before_any_update();
  list_devices();
  stop_update();
  check(!update_usb_device(NULL, NULL, false, false, false), "USB: no file, no update");
  check(!update_usb_device("", "", true, true, true), "USB: an empty name is no file");
  check(!update_usb_device(NULL, "none.hex", false, false, false), "USB: no device, no update");
  check(!update_ftdi_device(NULL, 0, false, NULL, false, false, false), "FTDI: no file, no update");
  check(!update_ftdi_device("", 0, true, "", true, true, true), "FTDI: an empty name is no file");
  check(!update_ftdi_device(NULL, 19200, true, "none.hex", false, false, false), "FTDI: no device");
  stop_update();
  check_before_any_update();
  printf("\n%d claims of the header do not hold\n", failures);
  return failures == 0 ? 0 : 1;
}
