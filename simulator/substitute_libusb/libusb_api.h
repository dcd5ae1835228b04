// libusb's public header, with its functions exported from this library although everything else
// in it stays hidden. Every file here includes libusb through this one. Windows has no visibility;
// there a list of exports says the same.
#pragma once

#include <sys/time.h>

#ifdef _WIN32
#include <libusb.h>
#else
#pragma GCC visibility push(default)
#include <libusb-1.0/libusb.h>
#pragma GCC visibility pop
#endif
