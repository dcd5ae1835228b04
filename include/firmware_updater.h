/**
 * @file
 * Firmware-update library: updates the firmware of control modules on the Tavo bus, over USB or
 * through an FTDI USB-serial adapter.
 *
 * One call runs one whole update and blocks until it has ended. Meanwhile other threads may ask for
 * the progress and the last error, and may ask the update to stop.
 *
 *     if (!update_usb_device("", "firmware.zip", false, false, false))
 *       fprintf(stderr, "update failed with code %d\n", get_last_error());
 *
 * @par CALLING ORDER
 *   1. list_devices(), if ports and adapters are not known.
 *   2. update_usb_device() or update_ftdi_device(), in one thread.
 *   3. While it runs, from other threads: get_progress(), get_last_error(), get_resetted_modules()
 *      and stop_update().
 *   4. After it has returned: get_last_error() for the cause of a failure, get_resetted_modules()
 *      for the modules that were reset.
 *
 * @par THREADS
 *   Updates run one at a time: an update asked for while another runs is refused with a line on the
 *   console. list_devices() and the four functions of step 3 may be called at any time from any
 *   thread. The library starts no thread and calls nothing back. It may be unloaded when no call is
 *   running. A process may end during a call; the device then stays as the update left it. A call
 *   that comes while the process ends, after the library's own objects are gone, does nothing and
 *   returns 0, -1 or false.
 *
 * @par TEXTS AND VALUES
 *   Text arguments are zero-terminated 8-bit strings owned by the caller and only read during the
 *   call; a null pointer counts as an empty text. A bool takes one byte. In arguments 0 is false and
 *   every other value true; results are 0 or 1. No exception leaves a function and none ends the
 *   process.
 *
 * @par OUTPUT
 *   An update writes its dialogue, a progress bar and a copy of its log to the standard output of
 *   the host, and appends the log to the file "FirmwareUpdater.log" in the folder of the host's
 *   executable.
 *
 * @par ERROR CODES (get_last_error())
 *
 * | Code | What happened                                                                      |
 * |-----:|------------------------------------------------------------------------------------|
 * |    0 | no failure has been stored since the library was loaded                            |
 * |    1 | the device did not answer a request in time                                        |
 * |    2 | the bootloader version request was not sent, or the bootloader is incompatible     |
 * |    3 | the hardware id request was not sent, or the firmware does not match the device    |
 * |    6 | the request to open the tunnel was not sent                                        |
 * |    8 | the erase request was not sent                                                     |
 * |    9 | the flash positioning request was not sent                                         |
 * |   10 | writing the flash failed                                                           |
 * |   11 | the request to start the application was not sent                                  |
 * |   12 | the request to call the bootloader was not sent                                    |
 * |   13 | the application size request was not sent, or the firmware does not fit the device |
 * |   14 | the verify request was not sent, or the checksums differ                           |
 * |   15 | an identity request was not sent                                                   |
 * |   16 | the label could not be set                                                         |
 * |   18 | the update file holds no valid firmware, or none that matches the device           |
 * |   19 | the request for the application's sign of life was not sent                        |
 * |   20 | the request for the reset modules was not sent                                     |
 *
 * 4, 5, 7 and 17 are reserved. A stop is shown on the console as error 15, but not stored. After a
 * failure the device is led back to its application; when that fails too, its code is the last one.
 * A device behind a tunnel cannot be led back, because the tunnel is closed first: when its firmware
 * was refused, it waits in its bootloader until its power is switched off and on, or until the next
 * update.
 */
#ifndef FIRMWARE_UPDATER_H
#define FIRMWARE_UPDATER_H

#include <stdint.h>
#ifndef __cplusplus
#include <stdbool.h>
#endif

/** The calling convention of every function: that of C. */
#if defined(_WIN32)
#define FIRMWARE_UPDATER_CALL __cdecl
#else
#define FIRMWARE_UPDATER_CALL
#endif

#ifdef __cplusplus
extern "C" {
#endif

/**
 * The code stored by the most recent step that stored one. It is not cleared when an update starts,
 * so it keeps its value over later updates that succeed. An update that has succeeded may leave
 * code 1, when the device did not report its list of reset modules.
 *
 * @return a code of the table above
 */
int FIRMWARE_UPDATER_CALL get_last_error(void);

/**
 * The part of the firmware that has been written.
 *
 * @return 0.5 for half. Above 1 when blank blocks had to be written too. -1 before the first
 *         transfer since the library was loaded, or when the last one had nothing to count. At the
 *         start of a later update it falls to 0.
 */
float FIRMWARE_UPDATER_CALL get_progress(void);

/**
 * Copies the three-letter name of a module that was reset. A host reads with index 0, 1, 2, ...
 * until the result is false.
 *
 * The list keeps its names until a later update asks the device for them anew, which an update that
 * fails before does not: read it after success only. While an update asks, the list grows from
 * empty, one name at a time.
 *
 * @param[out] buffer  room for at least 3 characters; no terminator is written
 * @param[in]  index   counted from 0
 * @return false, with `buffer` untouched, when there is no such module
 */
bool FIRMWARE_UPDATER_CALL get_resetted_modules(char* buffer, uint32_t index);

/**
 * Prints one line for each device that can be updated: USB devices with their port, then FTDI
 * adapters with their description. (The serial number that update_ftdi_device() takes is the one
 * of the adapter's USB descriptor, as operating systems show it.) An update that runs meanwhile is
 * not disturbed.
 */
void FIRMWARE_UPDATER_CALL list_devices(void);

/**
 * Asks the running update to end before its next step; the call itself returns at once. The update
 * shows error 15 on the console and returns false. No step is undone: a device that was being
 * written stays in its bootloader, and a tunnel stays open until the next update closes it. An
 * update that is still opening its device ends before its first step. Without a running update the
 * call only releases the memory that the last one kept; the next update is not affected.
 */
void FIRMWARE_UPDATER_CALL stop_update(void);

/**
 * Updates the device behind an FTDI adapter. Blocks until the update has ended.
 *
 * @param[in] serialNumber       the adapter's serial number, on an adapter with several channels
 *                               followed by the channel's letter (A to D); empty = the first
 *                               adapter found
 * @param[in] baudRate           of the line, in bits per second
 * @param[in] echo               the adapter hears every byte that it sends
 * @param[in] updateFile         path of the update file: .hex, or .zip with .hex files inside
 * @param[in] skipIdentityCheck  request no device ids, check no hardware id, set no label
 * @param[in] extendedErase      erase mode 3 instead of 1
 * @param[in] bootloaderOnly     no tunnel, identity, label and module requests: for a device that
 *                               waits in its bootloader without a working application and needs no
 *                               tunnel
 * @return true when the firmware was written and the application came up. False in every other
 *         case; the console says why, and get_last_error() when the update itself had begun
 */
bool FIRMWARE_UPDATER_CALL update_ftdi_device(const char* serialNumber, uint32_t baudRate,
                                              bool echo, const char* updateFile,
                                              bool skipIdentityCheck, bool extendedErase,
                                              bool bootloaderOnly);

/**
 * Updates a device that is connected by USB. Blocks until the update has ended.
 *
 * @param[in] port               the device's port as list_devices() prints it, for example "1-4-2";
 *                               empty = the first device found
 * @param[in] updateFile         as for update_ftdi_device(), like all that follow
 * @param[in] skipIdentityCheck  request no device ids, check no hardware id, set no label
 * @param[in] extendedErase      erase mode 3 instead of 1
 * @param[in] bootloaderOnly     no tunnel, identity, label and module requests
 * @return as that of update_ftdi_device()
 */
bool FIRMWARE_UPDATER_CALL update_usb_device(const char* port, const char* updateFile,
                                             bool skipIdentityCheck, bool extendedErase,
                                             bool bootloaderOnly);

#ifdef __cplusplus
}
#endif

#endif
