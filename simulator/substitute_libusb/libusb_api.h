// libusb's public header, with its functions exported from this library although everything else
// in it stays hidden. Every file here includes libusb through this one.
#pragma once

#include <sys/time.h>

#pragma GCC visibility push(default)
#include <libusb-1.0/libusb.h>
#pragma GCC visibility pop
