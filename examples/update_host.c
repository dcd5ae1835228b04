/* A small host of the firmware-update library: lists devices, or updates one and says how it went.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "firmware_updater.h"

static const char* const kUsage =
    "usage: update-host list\n"
    "       update-host usb PORT FILE [FLAG...]\n"
    "       update-host ftdi SERIAL BAUD FILE [--echo] [FLAG...]\n"
    "flags: --skip-identity-check --extended-erase --bootloader-only --twice\n"
    "An empty PORT or SERIAL (\"\") takes the first device found.\n";

typedef struct {
  bool echo;
  bool skip_identity_check;
  bool extended_erase;
  bool bootloader_only;
  bool twice;
} Flags;

/* False when a flag is unknown. */
static bool parse_flags(int count, char** texts, Flags* flags) {
  const struct {
    const char* name;
    bool* flag;
  } known[] = {
      {"--echo", &flags->echo},
      {"--skip-identity-check", &flags->skip_identity_check},
      {"--extended-erase", &flags->extended_erase},
      {"--bootloader-only", &flags->bootloader_only},
      {"--twice", &flags->twice},
  };
  for (int i = 0; i < count; ++i) {
    bool found = false;
    for (size_t k = 0; k < sizeof known / sizeof known[0]; ++k) {
      if (strcmp(texts[i], known[k].name) == 0) *known[k].flag = found = true;
    }
    if (!found) {
      fprintf(stderr, "unknown flag %s\n", texts[i]);
      return false;
    }
  }
  return true;
}

static bool update(char** arguments, const Flags* flags) {
  if (strcmp(arguments[0], "usb") == 0) {
    return update_usb_device(arguments[1], arguments[2], flags->skip_identity_check,
                             flags->extended_erase, flags->bootloader_only);
  }
  return update_ftdi_device(arguments[1], (uint32_t)strtoul(arguments[2], NULL, 10), flags->echo,
                            arguments[3], flags->skip_identity_check, flags->extended_erase,
                            flags->bootloader_only);
}

/* After a failure they would be those of an earlier update. */
static void print_modules(void) {
  char name[4] = "";
  for (uint32_t i = 0; get_resetted_modules(name, i); ++i) printf("module %s was reset\n", name);
}

int main(int argc, char** argv) {
  if (argc == 2 && strcmp(argv[1], "list") == 0) {
    list_devices();
    return 0;
  }
  const bool usb = argc >= 4 && strcmp(argv[1], "usb") == 0;
  const bool ftdi = argc >= 5 && strcmp(argv[1], "ftdi") == 0;
  const int first_flag = usb ? 4 : 5;
  Flags flags = {false, false, false, false, false};
  if ((!usb && !ftdi) || !parse_flags(argc - first_flag, argv + first_flag, &flags)) {
    fputs(kUsage, stderr);
    return 2;
  }

  bool succeeded = update(argv + 1, &flags);
  if (succeeded && flags.twice) succeeded = update(argv + 1, &flags);
  if (succeeded) print_modules();
  printf("%s, last error %d, progress %.2f\n", succeeded ? "succeeded" : "failed", get_last_error(),
         (double)get_progress());
  return succeeded ? 0 : 1;
}
