// Version, capabilities and the names and texts of the error codes.
#include <algorithm>
#include <array>
#include <cstdint>

#include "simulator/substitute_libusb/libusb_api.h"

namespace {

struct ErrorText {
  int code;
  const char* name;
  const char* text;
};

constexpr std::array kErrors{
    ErrorText{LIBUSB_SUCCESS, "LIBUSB_SUCCESS", "Success"},
    ErrorText{LIBUSB_ERROR_IO, "LIBUSB_ERROR_IO", "Input/Output Error"},
    ErrorText{LIBUSB_ERROR_INVALID_PARAM, "LIBUSB_ERROR_INVALID_PARAM", "Invalid parameter"},
    ErrorText{LIBUSB_ERROR_ACCESS, "LIBUSB_ERROR_ACCESS",
              "Access denied (insufficient permissions)"},
    ErrorText{LIBUSB_ERROR_NO_DEVICE, "LIBUSB_ERROR_NO_DEVICE",
              "No such device (it may have been disconnected)"},
    ErrorText{LIBUSB_ERROR_NOT_FOUND, "LIBUSB_ERROR_NOT_FOUND", "Entity not found"},
    ErrorText{LIBUSB_ERROR_BUSY, "LIBUSB_ERROR_BUSY", "Resource busy"},
    ErrorText{LIBUSB_ERROR_TIMEOUT, "LIBUSB_ERROR_TIMEOUT", "Operation timed out"},
    ErrorText{LIBUSB_ERROR_OVERFLOW, "LIBUSB_ERROR_OVERFLOW", "Overflow"},
    ErrorText{LIBUSB_ERROR_PIPE, "LIBUSB_ERROR_PIPE", "Pipe error"},
    ErrorText{LIBUSB_ERROR_INTERRUPTED, "LIBUSB_ERROR_INTERRUPTED",
              "System call interrupted (perhaps due to signal)"},
    ErrorText{LIBUSB_ERROR_NO_MEM, "LIBUSB_ERROR_NO_MEM", "Insufficient memory"},
    ErrorText{LIBUSB_ERROR_NOT_SUPPORTED, "LIBUSB_ERROR_NOT_SUPPORTED",
              "Operation not supported or unimplemented on this platform"},
    ErrorText{LIBUSB_ERROR_OTHER, "LIBUSB_ERROR_OTHER", "Other error"},
};
static_assert(kErrors.size() == LIBUSB_ERROR_COUNT);

constexpr ErrorText kUnknown{LIBUSB_ERROR_OTHER, "**UNKNOWN**", "Other error"};

const ErrorText& Find(int code) {
  const auto found = std::ranges::find(kErrors, code, &ErrorText::code);
  return found == kErrors.end() ? kUnknown : *found;
}

}  // namespace

const libusb_version* LIBUSB_CALL libusb_get_version() {
  static const libusb_version version{1, 0, 26, 0, "", "substitute for simulated devices"};
  return &version;
}

int LIBUSB_CALL libusb_has_capability(std::uint32_t capability) {
  return capability == LIBUSB_CAP_HAS_CAPABILITY ||
         capability == LIBUSB_CAP_SUPPORTS_DETACH_KERNEL_DRIVER;
}

const char* LIBUSB_CALL libusb_error_name(int code) { return Find(code).name; }

const char* LIBUSB_CALL libusb_strerror(int code) { return Find(code).text; }
