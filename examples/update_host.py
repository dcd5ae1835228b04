#!/usr/bin/env python3
"""Updates a device with the firmware-update library, by ctypes.

usage: update_host.py LIBRARY list
       update_host.py LIBRARY usb PORT FILE
       update_host.py LIBRARY ftdi SERIAL BAUD FILE

LIBRARY is libFirmwareUpdater.so, or the full path of FirmwareUpdater.dll for a Python of as many
bits. An empty PORT or SERIAL ("") takes the first device found. Ctrl-C asks the update to stop.
"""

import ctypes
import os
import sys
import threading
from ctypes import c_bool, c_char_p, c_int, c_uint32

# name: (result, arguments). A C bool has one byte, as c_bool has.
SIGNATURES = {
    "get_last_error": (c_int, []),
    "get_resetted_modules": (c_bool, [c_char_p, c_uint32]),
    "list_devices": (None, []),
    "stop_update": (None, []),
    "update_ftdi_device": (c_bool, [c_char_p, c_uint32, c_bool, c_char_p, c_bool, c_bool, c_bool]),
    "update_usb_device": (c_bool, [c_char_p, c_char_p, c_bool, c_bool, c_bool]),
}


def load(path: str) -> ctypes.CDLL:
    """Loads the library, whose calls are cdecl on every system, and declares its functions."""
    library = ctypes.CDLL(path)
    for name, (result, arguments) in SIGNATURES.items():
        function = getattr(library, name)
        function.restype, function.argtypes = result, arguments
    return library


def reset_modules(library: ctypes.CDLL) -> list[str]:
    """The names, three letters each, of the modules that the last update reset."""
    names = []
    buffer = ctypes.create_string_buffer(4)
    while library.get_resetted_modules(buffer, len(names)):
        names.append(buffer.value.decode("ascii", "replace"))
    return names


def update(library: ctypes.CDLL, kind: str, words: list[str]) -> bool:
    """Runs one update, in a thread of its own so that this one hears Ctrl-C."""
    device, file = os.fsencode(words[0]), os.fsencode(words[-1])
    flags = [False, False, False]  # check the identity, erase mode 1, the full plan
    call, arguments = library.update_usb_device, [device, file, *flags]
    if kind == "ftdi":
        call, arguments = library.update_ftdi_device, [device, int(words[1]), False, file, *flags]
    result = []
    thread = threading.Thread(target=lambda: result.append(call(*arguments)))
    thread.start()
    while thread.is_alive():
        try:
            thread.join(0.2)
        except KeyboardInterrupt:
            library.stop_update()
    return result == [True]


def main(words: list[str]) -> int:
    known = [*words[1:2], len(words)] in (["list", 2], ["usb", 4], ["ftdi", 5])
    if not known or (words[1] == "ftdi" and not words[3].isdecimal()):
        sys.exit(__doc__)
    library = load(words[0])
    if words[1] == "list":
        return library.list_devices() or 0
    updated = update(library, words[1], words[2:])
    # After a failure they would be those of an earlier update.
    for name in reset_modules(library) if updated else []:
        print(f"module {name} was reset")
    print("updated" if updated else f"failed, last error {library.get_last_error()}")
    return 0 if updated else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
