// Synchronous transfers: an asynchronous one, and the event loop until it has ended.
#include <algorithm>
#include <memory>

#include "simulator/substitute_libusb/context.h"

using namespace tavosim::substitute;

namespace {

struct FreeTransfer {
  void operator()(libusb_transfer* transfer) const { libusb_free_transfer(transfer); }
};
using OwnedTransfer = std::unique_ptr<libusb_transfer, FreeTransfer>;

int ErrorOf(libusb_transfer_status status) {
  switch (status) {
    case LIBUSB_TRANSFER_COMPLETED: return LIBUSB_SUCCESS;
    case LIBUSB_TRANSFER_TIMED_OUT: return LIBUSB_ERROR_TIMEOUT;
    case LIBUSB_TRANSFER_STALL: return LIBUSB_ERROR_PIPE;
    case LIBUSB_TRANSFER_NO_DEVICE: return LIBUSB_ERROR_NO_DEVICE;
    case LIBUSB_TRANSFER_OVERFLOW: return LIBUSB_ERROR_OVERFLOW;
    default: return LIBUSB_ERROR_IO;
  }
}

extern "C" void LIBUSB_CALL SetDone(libusb_transfer* transfer) {
  *static_cast<int*>(transfer->user_data) = 1;
}

int RunToEnd(libusb_transfer& transfer) {
  libusb_context* const context = transfer.dev_handle->device->context;
  if (context == nullptr) return LIBUSB_ERROR_NO_DEVICE;
  if (context->inCallback) return LIBUSB_ERROR_BUSY;
  if (transfer.timeout == 0)
    transfer.timeout = static_cast<unsigned>(std::chrono::milliseconds(kLongestTransfer).count());
  int done = 0;
  transfer.user_data = &done;
  transfer.callback = SetDone;
  const int error = libusb_submit_transfer(&transfer);
  if (error != LIBUSB_SUCCESS) return error;
  while (done == 0) RunEvents(*context, kLongestTransfer, &done);  // ends with its timeout
  return ErrorOf(transfer.status);
}

int Transfer(libusb_transfer_type type, libusb_device_handle* handle, unsigned char endpoint,
             unsigned char* data, int length, int* transferred, unsigned timeoutMs) {
  const OwnedTransfer transfer(libusb_alloc_transfer(0));
  libusb_fill_bulk_transfer(transfer.get(), handle, endpoint, data, length, nullptr, nullptr,
                            timeoutMs);
  transfer->type = static_cast<unsigned char>(type);
  const int result = RunToEnd(*transfer);
  if (transferred != nullptr) *transferred = transfer->actual_length;
  return result;
}

}  // namespace

int LIBUSB_CALL libusb_control_transfer(libusb_device_handle* handle, std::uint8_t requestType,
                                        std::uint8_t request, std::uint16_t value,
                                        std::uint16_t index, unsigned char* data,
                                        std::uint16_t length, unsigned timeoutMs) {
  std::vector<unsigned char> buffer(LIBUSB_CONTROL_SETUP_SIZE + length);
  unsigned char* const stage = buffer.data() + LIBUSB_CONTROL_SETUP_SIZE;
  libusb_fill_control_setup(buffer.data(), requestType, request, value, index, length);
  const bool in = (requestType & LIBUSB_ENDPOINT_IN) != 0;
  if (!in) std::copy_n(data, length, stage);
  const OwnedTransfer transfer(libusb_alloc_transfer(0));
  libusb_fill_control_transfer(transfer.get(), handle, buffer.data(), nullptr, nullptr, timeoutMs);
  const int error = RunToEnd(*transfer);
  if (error != LIBUSB_SUCCESS) return error;
  if (in) std::copy_n(stage, transfer->actual_length, data);
  return transfer->actual_length;
}

int LIBUSB_CALL libusb_bulk_transfer(libusb_device_handle* handle, unsigned char endpoint,
                                     unsigned char* data, int length, int* transferred,
                                     unsigned timeoutMs) {
  return Transfer(LIBUSB_TRANSFER_TYPE_BULK, handle, endpoint, data, length, transferred,
                  timeoutMs);
}

int LIBUSB_CALL libusb_interrupt_transfer(libusb_device_handle* handle, unsigned char endpoint,
                                          unsigned char* data, int length, int* transferred,
                                          unsigned timeoutMs) {
  return Transfer(LIBUSB_TRANSFER_TYPE_INTERRUPT, handle, endpoint, data, length, transferred,
                  timeoutMs);
}
