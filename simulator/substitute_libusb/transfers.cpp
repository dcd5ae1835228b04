// Asynchronous transfers and the event loop that moves them.
#include <algorithm>
#include <cstdlib>

#include "simulator/substitute_libusb/context.h"

using namespace tavosim::substitute;
using namespace tavosim::usbip;

namespace {

// Time limit for a simulator to confirm a cancelled transfer. A busy machine or disk stays within it;
// a simulator that has ended is noticed at once.
constexpr auto kUnlinkPatience = std::chrono::seconds(5);

std::uint32_t DeviceIdOf(const libusb_device_handle& handle) {
  const DeviceRecord& record = handle.device->view.record;
  return DeviceId(record.busNumber, record.deviceNumber);
}

// The bytes that go out for a transfer.
struct Urb {
  UrbHeader header{.command = kCmdSubmit};
  ByteView payload{};
};

int PrepareControl(const libusb_transfer& transfer, Urb& urb) {
  const ByteView buffer(transfer.buffer, static_cast<std::size_t>(transfer.length));
  if (buffer.size() < LIBUSB_CONTROL_SETUP_SIZE) return LIBUSB_ERROR_INVALID_PARAM;
  std::copy_n(buffer.begin(), urb.header.setup.size(), urb.header.setup.begin());
  const std::size_t length = static_cast<std::size_t>(buffer[6] | buffer[7] << 8);
  if (buffer.size() < LIBUSB_CONTROL_SETUP_SIZE + length) return LIBUSB_ERROR_INVALID_PARAM;
  const bool in = (buffer[0] & LIBUSB_ENDPOINT_IN) != 0 && length > 0;
  urb.header.direction = in ? kDirectionIn : kDirectionOut;
  urb.header.length = static_cast<std::uint32_t>(length);
  if (!in) urb.payload = buffer.subspan(LIBUSB_CONTROL_SETUP_SIZE, length);
  return LIBUSB_SUCCESS;
}

int PrepareBulk(const libusb_transfer& transfer, Urb& urb) {
  const auto place = FindEndpoint(*transfer.dev_handle->device, transfer.endpoint);
  const bool claimed = place && (transfer.dev_handle->claimed >> place->interfaceNumber & 1) != 0;
  if (!claimed) return LIBUSB_ERROR_NOT_FOUND;
  const bool in = (transfer.endpoint & LIBUSB_ENDPOINT_IN) != 0;
  urb.header.direction = in ? kDirectionIn : kDirectionOut;
  urb.header.endpoint = transfer.endpoint & LIBUSB_ENDPOINT_ADDRESS_MASK;
  urb.header.length = static_cast<std::uint32_t>(transfer.length);
  if (!in) urb.payload = {transfer.buffer, urb.header.length};
  return LIBUSB_SUCCESS;
}

int Prepare(const libusb_transfer& transfer, Urb& urb) {
  constexpr int kLongest = static_cast<int>(kMaxTransferSize);
  if (transfer.length < 0 || transfer.length > kLongest) return LIBUSB_ERROR_INVALID_PARAM;
  switch (transfer.type) {
    case LIBUSB_TRANSFER_TYPE_CONTROL: return PrepareControl(transfer, urb);
    case LIBUSB_TRANSFER_TYPE_BULK:
    case LIBUSB_TRANSFER_TYPE_INTERRUPT: return PrepareBulk(transfer, urb);
    default: return LIBUSB_ERROR_NOT_SUPPORTED;
  }
}

bool SendUrb(libusb_device_handle& handle, const UrbHeader& header, ByteView payload = {}) {
  Writer out;
  Encode(out, header);
  return handle.connection.Send(out.Raw(payload).Take());
}

void End(libusb_transfer& transfer, libusb_transfer_status status) {
  transfer.status = status;
  transfer.dev_handle->device->context->ended.push_back(&transfer);
}

// From here on the handle can only be closed.
void LoseDevice(libusb_device_handle& handle) {
  handle.lost = true;
  for (const Flight& flight : handle.flights) End(*flight.transfer, LIBUSB_TRANSFER_NO_DEVICE);
  handle.flights.clear();
}

// False when that failed, and the device is lost.
bool StartUnlink(libusb_device_handle& handle, Flight& flight) {
  flight.unlinkSequence = ++handle.lastSequence;
  flight.unlinkDeadline = Clock::now() + kUnlinkPatience;
  const UrbHeader header{.command = kCmdUnlink,
                         .sequence = flight.unlinkSequence,
                         .deviceId = DeviceIdOf(handle),
                         .detail = flight.sequence};
  if (SendUrb(handle, header)) return true;
  LoseDevice(handle);
  return false;
}

// Unlinks transfers that have run out of time. A simulator that does not confirm it counts as lost.
void Expire(libusb_device_handle& handle, Clock::time_point now) {
  for (Flight& flight : handle.flights) {
    const bool unlinking = flight.unlinkSequence != 0;
    if (unlinking && flight.unlinkDeadline <= now) return LoseDevice(handle);
    if (unlinking || !flight.deadline || *flight.deadline > now) continue;
    flight.timedOut = true;
    if (!StartUnlink(handle, flight)) return;
  }
}

Clock::time_point NextDeadline(const libusb_device_handle& handle, Clock::time_point limit) {
  for (const Flight& flight : handle.flights)
    if (flight.unlinkSequence != 0)
      limit = std::min(limit, flight.unlinkDeadline);
    else if (flight.deadline)
      limit = std::min(limit, *flight.deadline);
  return limit;
}

libusb_transfer_status StatusOf(std::int32_t status) {
  switch (status) {
    case kUrbDone: return LIBUSB_TRANSFER_COMPLETED;
    case kUrbStalled: return LIBUSB_TRANSFER_STALL;
    case kUrbOverflow: return LIBUSB_TRANSFER_OVERFLOW;
    case kUrbNoDevice:
    case kUrbDeviceLost: return LIBUSB_TRANSFER_NO_DEVICE;
    default: return LIBUSB_TRANSFER_ERROR;
  }
}

void EndAnswered(const Flight& flight, const UrbHeader& answer, ByteView data) {
  libusb_transfer& transfer = *flight.transfer;
  const bool control = transfer.type == LIBUSB_TRANSFER_TYPE_CONTROL;
  std::ranges::copy(data, transfer.buffer + (control ? LIBUSB_CONTROL_SETUP_SIZE : 0));
  transfer.actual_length = static_cast<int>(answer.length);
  const bool isShort = transfer.actual_length < transfer.length && !control;
  const bool shortIsWrong = (transfer.flags & LIBUSB_TRANSFER_SHORT_NOT_OK) != 0;
  const auto status = StatusOf(answer.Status());
  const bool spoilt = status == LIBUSB_TRANSFER_COMPLETED && isShort && shortIsWrong;
  End(transfer, spoilt ? LIBUSB_TRANSFER_ERROR : status);
}

std::size_t CapacityOf(const Flight& flight) {
  const bool control = flight.transfer->type == LIBUSB_TRANSFER_TYPE_CONTROL;
  const std::size_t length = static_cast<std::size_t>(flight.transfer->length);
  return control ? length - LIBUSB_CONTROL_SETUP_SIZE : length;
}

void TakeUnlinked(libusb_device_handle& handle, const UrbHeader& answer) {
  handle.connection.Consume(kUrbHeaderSize);
  const auto flight = std::ranges::find(handle.flights, answer.sequence, &Flight::unlinkSequence);
  // Not found: its own answer, with its data, was already on the way and has been taken.
  if (flight == handle.flights.end()) return;
  const Flight ended = *flight;
  handle.flights.erase(flight);
  End(*ended.transfer, ended.timedOut ? LIBUSB_TRANSFER_TIMED_OUT : LIBUSB_TRANSFER_CANCELLED);
}

// Takes one whole message off the connection; false when there is none, or the device is lost.
bool TakeAnswer(libusb_device_handle& handle) {
  const ByteView input = handle.connection.Input();
  if (input.size() < kUrbHeaderSize) return false;
  const UrbHeader answer = DecodeUrbHeader(input);
  if (answer.command == kRetUnlink) return TakeUnlinked(handle, answer), true;
  const auto flight = std::ranges::find(handle.flights, answer.sequence, &Flight::sequence);
  const bool sound = answer.command == kRetSubmit && flight != handle.flights.end() &&
                     answer.length <= CapacityOf(*flight);
  if (!sound) return LoseDevice(handle), false;
  const std::size_t payload = flight->in ? answer.length : 0;
  if (input.size() < kUrbHeaderSize + payload) return false;
  EndAnswered(*flight, answer, input.subspan(kUrbHeaderSize, payload));
  handle.flights.erase(flight);
  handle.connection.Consume(kUrbHeaderSize + payload);
  return true;
}

void TakeAnswers(libusb_device_handle& handle) {
  const bool alive = handle.connection.Receive();
  while (TakeAnswer(handle)) {
  }
  if (!alive && !handle.lost) LoseDevice(handle);
}

void Wait(const libusb_context& context, Clock::time_point limit) {
  std::vector<Watch> sockets;
  for (const libusb_device_handle* handle : context.handles) {
    if (!handle->lost) sockets.push_back({handle->connection.Fd(), Readiness::Input});
    limit = NextDeadline(*handle, limit);
  }
  WaitUntilReady(sockets, limit - Clock::now());
}

void Advance(libusb_context& context) {
  for (libusb_device_handle* handle : context.handles) {
    if (!handle->lost) TakeAnswers(*handle);
    Expire(*handle, Clock::now());
  }
}

void RunCallbacks(libusb_context& context) {
  while (!context.ended.empty()) {
    libusb_transfer* const transfer = context.ended.front();
    context.ended.pop_front();
    const bool freeIt = (transfer->flags & LIBUSB_TRANSFER_FREE_TRANSFER) != 0;
    context.inCallback = true;
    if (transfer->callback != nullptr) transfer->callback(transfer);
    context.inCallback = false;
    if (freeIt) libusb_free_transfer(transfer);
  }
}

}  // namespace

int tavosim::substitute::RunEvents(libusb_context& context, Clock::duration limit,
                                   const int* completed) {
  if (context.inCallback) return LIBUSB_ERROR_BUSY;
  if (context.ended.empty() && (completed == nullptr || *completed == 0)) {
    Wait(context, Clock::now() + limit);
    Advance(context);
  }
  RunCallbacks(context);
  return LIBUSB_SUCCESS;
}

libusb_transfer* LIBUSB_CALL libusb_alloc_transfer(int isoPackets) {
  if (isoPackets < 0) return nullptr;
  const std::size_t packets =
      static_cast<std::size_t>(isoPackets) * sizeof(libusb_iso_packet_descriptor);
  return static_cast<libusb_transfer*>(std::calloc(1, sizeof(libusb_transfer) + packets));
}

void LIBUSB_CALL libusb_free_transfer(libusb_transfer* transfer) {
  if (transfer == nullptr) return;
  if ((transfer->flags & LIBUSB_TRANSFER_FREE_BUFFER) != 0) std::free(transfer->buffer);
  std::free(transfer);
}

int LIBUSB_CALL libusb_submit_transfer(libusb_transfer* transfer) {
  libusb_device_handle& handle = *transfer->dev_handle;
  if (handle.lost || handle.device->context == nullptr) return LIBUSB_ERROR_NO_DEVICE;
  if (std::ranges::count(handle.flights, transfer, &Flight::transfer) != 0)
    return LIBUSB_ERROR_BUSY;
  Urb urb;
  if (const int error = Prepare(*transfer, urb); error != LIBUSB_SUCCESS) return error;
  urb.header.sequence = ++handle.lastSequence;
  urb.header.deviceId = DeviceIdOf(handle);
  transfer->actual_length = 0;
  if (!SendUrb(handle, urb.header, urb.payload)) return LoseDevice(handle), LIBUSB_ERROR_NO_DEVICE;
  Flight flight{.sequence = urb.header.sequence,
                .transfer = transfer,
                .in = urb.header.direction == kDirectionIn};
  if (transfer->timeout != 0)
    flight.deadline = Clock::now() + std::chrono::milliseconds(transfer->timeout);
  handle.flights.push_back(flight);
  return LIBUSB_SUCCESS;
}

int LIBUSB_CALL libusb_cancel_transfer(libusb_transfer* transfer) {
  libusb_device_handle& handle = *transfer->dev_handle;
  const auto flight = std::ranges::find(handle.flights, transfer, &Flight::transfer);
  if (flight == handle.flights.end() || flight->unlinkSequence != 0) return LIBUSB_ERROR_NOT_FOUND;
  return StartUnlink(handle, *flight) ? LIBUSB_SUCCESS : LIBUSB_ERROR_NO_DEVICE;
}

int LIBUSB_CALL libusb_handle_events_timeout_completed(libusb_context* context, timeval* limit,
                                                       int* completed) {
  context = Resolve(context);
  if (context == nullptr || limit == nullptr) return LIBUSB_ERROR_INVALID_PARAM;
  const auto duration =
      std::chrono::seconds(limit->tv_sec) + std::chrono::microseconds(limit->tv_usec);
  return RunEvents(*context, std::min<Clock::duration>(duration, kLongestTransfer), completed);
}

int LIBUSB_CALL libusb_handle_events_timeout(libusb_context* context, timeval* limit) {
  return libusb_handle_events_timeout_completed(context, limit, nullptr);
}

int LIBUSB_CALL libusb_handle_events_completed(libusb_context* context, int* completed) {
  timeval limit{};
  limit.tv_sec =
      static_cast<decltype(limit.tv_sec)>(std::chrono::seconds(kLongestTransfer).count());
  return libusb_handle_events_timeout_completed(context, &limit, completed);
}

int LIBUSB_CALL libusb_handle_events(libusb_context* context) {
  return libusb_handle_events_completed(context, nullptr);
}
