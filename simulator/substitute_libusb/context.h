// A libusb for programs and tests that meet simulated devices only: it has the C interface of
// libusb 1.0.26 and takes its place through LD_LIBRARY_PATH, on Windows by lying beside the
// program, so that a program linked with the real one, and libftdi1 in between, run unchanged.
// TAVO_SIMULATORS names the simulators; each is one device on the bus, and one that does not answer
// or is unplugged is not listed. A server of ordinary USB/IP may stand in a simulator's place; the
// first device that it exports counts.
//
// Differences from the real one: a context belongs to one thread at a time; it has no isochronous
// transfers and no hotplug events; a device can be open once; a bulk transfer needs its interface
// claimed; and every wait is bounded: a synchronous transfer with timeout 0
// ends after kLongestTransfer, and a simulator that stops answering counts as unplugged.
//
// This header has the types that libusb.h leaves open; libusb.h describes the C functions.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "simulator/substitute_libusb/connection.h"
#include "simulator/substitute_libusb/libusb_api.h"

namespace tavosim::substitute {

inline constexpr auto kLongestTransfer = std::chrono::minutes(1);

// One transfer on its way.
struct Flight {
  std::uint32_t sequence = 0;
  libusb_transfer* transfer = nullptr;  // the program's, which must not free it before its end
  bool in = false;
  std::optional<Clock::time_point> deadline{};
  std::uint32_t unlinkSequence = 0;  // 0 = not being unlinked
  Clock::time_point unlinkDeadline{};
  bool timedOut = false;  // why it is being unlinked: its timeout, or a cancel
};

// The default context stands for a null pointer; null again when there is none.
libusb_context* Resolve(libusb_context* context);

// Runs the callbacks of the transfers that have ended; when there are none, and `completed` is null
// or points to 0, first waits for one, or for `limit`. Returns 0, or LIBUSB_ERROR_BUSY from within
// a callback.
int RunEvents(libusb_context& context, Clock::duration limit, const int* completed);

// The interface that has the endpoint, and the endpoint's packet size; none for an unknown one.
struct EndpointPlace {
  std::uint8_t interfaceNumber = 0;
  std::uint16_t packetSize = 0;
};
std::optional<EndpointPlace> FindEndpoint(const libusb_device& device, std::uint8_t endpoint);
bool HasInterface(const libusb_device& device, int interfaceNumber);

}  // namespace tavosim::substitute

struct libusb_device {
  libusb_context* context = nullptr;  // null once the context has ended
  int references = 1;
  tavosim::substitute::Address address{};
  tavosim::substitute::HostView view{};
  std::vector<std::uint8_t> place{};  // bus, then the ports from the root hub outward
};

struct libusb_device_handle {
  libusb_device* device = nullptr;  // referenced
  tavosim::substitute::Connection connection{};
  std::uint32_t lastSequence = 0;
  std::vector<tavosim::substitute::Flight> flights{};
  std::uint32_t claimed = 0;       // interface mask
  std::uint32_t driversAside = 0;  // detached by a claim, to be attached at the release
  bool autoDetach = false;
  bool lost = false;
};

struct libusb_context {
  int references = 1;
  std::vector<tavosim::substitute::Address> simulators{};
  std::vector<libusb_device*> devices{};  // those somebody still references
  std::vector<libusb_device_handle*> handles{};
  std::deque<libusb_transfer*> ended{};  // callback still to be run
  bool inCallback = false;
};
