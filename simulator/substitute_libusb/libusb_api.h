// libusb's public header, with its functions exported from this library although everything else
// in it stays hidden. Every file here includes libusb through this one. Windows uses a
// list of exports instead of visibility.
#pragma once

#include <sys/time.h>

#ifdef _WIN32
#include <libusb.h>
#else
#pragma GCC visibility push(default)
#include <libusb-1.0/libusb.h>
#pragma GCC visibility pop
#endif
