/* The public header as a C99 compiler sees it, and the exports called through it as carelessly as a
 * host may: with null pointers, empty texts and before any update.
 */
#include "firmware_updater.h"

#include <stdio.h>
#include <string.h>

/* The calls as a host in another language declares them. */
static int (*const last_error)(void) = get_last_error;
static float (*const progress)(void) = get_progress;
static bool (*const resetted_modules)(char*, uint32_t) = get_resetted_modules;
static void (*const devices)(void) = list_devices;
static void (*const stop)(void) = stop_update;
static bool (*const update_ftdi)(const char*, uint32_t, bool, const char*, bool, bool,
                                 bool) = update_ftdi_device;
static bool (*const update_usb)(const char*, const char*, bool, bool, bool) = update_usb_device;

static int failures = 0;

static void check(bool holds, const char* claim) {
  if (holds) return;
  ++failures;
  printf("FAILED: %s\n", claim);
}

static void check_before_any_update(void) {
  char name[4] = "xyz";
  check(sizeof(bool) == 1, "a bool takes one byte");
  check(last_error() == 0, "no failure has been stored");
  check(progress() <= -1.0f && progress() >= -1.0f, "the progress is -1");
  check(!resetted_modules(name, 0), "no module was reset");
  check(!resetted_modules(NULL, 0) && !resetted_modules(NULL, UINT32_MAX), "no buffer, no module");
  check(strcmp(name, "xyz") == 0, "the buffer is untouched");
}

int main(void) {
  check_before_any_update();
  devices();
  stop();
  check(!update_usb(NULL, NULL, false, false, false), "USB: no file, no update");
  check(!update_usb("", "", true, true, true), "USB: an empty name is no file");
  check(!update_usb(NULL, "none.hex", false, false, false), "USB: no device, no update");
  check(!update_ftdi(NULL, 0, false, NULL, false, false, false), "FTDI: no file, no update");
  check(!update_ftdi("", 0, true, "", true, true, true), "FTDI: an empty name is no file");
  check(!update_ftdi(NULL, 19200, true, "none.hex", false, false, false), "FTDI: no device");
  stop();
  check_before_any_update();
  printf("\n%d claims of the header do not hold\n", failures);
  return failures == 0 ? 0 : 1;
}
