#include "tests/usbfs/usbfs_node.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>

namespace tavo::test {
namespace {

using tavosim::SimTime;
using tavosim::UsbResult;
using tavosim::UsbStatus;

constexpr const char* kUsbfs = "usbfs";

// The answer to a request that is answered later.
constexpr int kLater = -1;

// The node looks to poll() like a file, which is always ready, where the kernel's is ready when a
// URB can be reaped. So that a host does not ask without a pause, it is told only after a while that
// there is nothing to reap.
constexpr SimTime kNothingToReap{1000};

// With the kernel a closed file holds nothing any more; here that is noticed a little later. So that
// who closes and claims again at once is not refused, refusal waits.
constexpr SimTime kCloseIsNoticed{300'000};

constexpr SimTime kLookForClosed{1000};

constexpr std::size_t kSetupSize = 8;
constexpr unsigned kToHost = 0x80;
constexpr unsigned kEndpointDescriptor = 5;
constexpr unsigned kInterfaceDescriptor = 4;

enum Recipient : std::uint8_t { kDevice = 0, kInterface = 1, kEndpoint = 2 };
enum StandardRequest : std::uint8_t {
  kClearFeature = 1,
  kSetConfigurationRequest = 9,
  kSetInterfaceRequest = 11,
};

// Calls `visit` for each descriptor that follows the one of the configuration.
template <typename Visit>
void ForEachDescriptor(std::span<const std::uint8_t> all, Visit visit) {
  while (all.size() >= 2 && all[0] >= 2 && all[0] <= all.size()) {
    visit(all.first(all[0]));
    all = all.subspan(all[0]);
  }
}

tavosim::SetupPacket SetupOf(std::span<const std::uint8_t> raw) {
  const auto word = [raw](std::size_t at) {
    return static_cast<std::uint16_t>(raw[at] | raw[at + 1] << 8);  // USB is little-endian
  };
  return {raw[0], raw[1], word(2), word(4), word(6)};
}

bool IsControl(const usbdevfs_urb& urb) { return urb.type == USBDEVFS_URB_TYPE_CONTROL; }

}  // namespace

const std::array<UsbfsNode::Request, 14> UsbfsNode::kRequests{{
    {USBDEVFS_GET_CAPABILITIES, false, &UsbfsNode::GetCapabilities},
    {USBDEVFS_GETDRIVER, false, &UsbfsNode::GetDriver},
    {USBDEVFS_IOCTL, false, &UsbfsNode::DriverIoctl},
    {USBDEVFS_DISCONNECT_CLAIM, false, &UsbfsNode::DisconnectClaim},
    {USBDEVFS_CLAIMINTERFACE, false, &UsbfsNode::ClaimInterface},
    {USBDEVFS_RELEASEINTERFACE, false, &UsbfsNode::ReleaseInterface},
    {USBDEVFS_SETCONFIGURATION, false, &UsbfsNode::SetConfiguration},
    {USBDEVFS_SETINTERFACE, false, &UsbfsNode::SetInterface},
    {USBDEVFS_CLEAR_HALT, false, &UsbfsNode::ClearHalt},
    {USBDEVFS_RESET, false, &UsbfsNode::Reset},
    {USBDEVFS_SUBMITURB, false, &UsbfsNode::SubmitUrb},
    {USBDEVFS_DISCARDURB, false, &UsbfsNode::DiscardUrb},
    {USBDEVFS_REAPURB, true, &UsbfsNode::ReapUrb},
    {USBDEVFS_REAPURBNDELAY, true, &UsbfsNode::ReapUrbNow},
}};

std::span<std::uint8_t> UsbfsNode::Urb::Bytes() const {
  if (!buffer) return {};
  return {buffer->data, static_cast<std::size_t>(buffer->data_len)};
}

UsbfsNode::UsbfsNode(tavosim::UsbDevice& front, std::string driver,
                     const NodeEnvironment& environment)
    : m_front(front),
      m_environment(environment),
      m_handler(umockdev_ioctl_base_new()),
      m_driver(std::move(driver)) {
  ForEachDescriptor(m_front.ConfigurationDescriptor(), [&](std::span<const std::uint8_t> one) {
    if (one[1] == kInterfaceDescriptor) m_interfaces.push_back({m_driver, nullptr});
  });
  g_signal_connect(m_handler.get(), "handle-ioctl", G_CALLBACK(&UsbfsNode::OnIoctl), this);
}

UsbfsNode::~UsbfsNode() { g_signal_handlers_disconnect_by_data(m_handler.get(), this); }

// --- what comes in ---

gboolean UsbfsNode::OnIoctl(UMockdevIoctlBase*, Client client, gpointer self) {
  auto& node = *static_cast<UsbfsNode*>(self);
  const std::lock_guard guard(node.m_environment.lock);
  node.Remember(client);
  const int error = node.Answer(client);
  if (error != kLater) umockdev_ioctl_client_complete(client, error == 0 ? 0 : -1, error);
  return TRUE;
}

int UsbfsNode::Answer(Client client) {
  const unsigned long number = umockdev_ioctl_client_get_request(client);
  const auto request = std::ranges::find(kRequests, number, &Request::number);
  if (request == kRequests.end()) return ENOTTY;
  if (!m_connected && !request->whenGone) return ENODEV;
  Call call{client, {}};
  if (const std::size_t size = _IOC_SIZE(number); size != 0) {
    UMockdevIoctlData* const argument = umockdev_ioctl_client_get_arg(client);
    call.data.reset(umockdev_ioctl_data_resolve(argument, 0, size, nullptr));
    if (!call.data) return EFAULT;
  }
  return (this->*request->answer)(call);
}

// umockdev itself does not keep a client alive that waits for its answer.
void UsbfsNode::Remember(Client client) {
  ForgetClosed();
  const auto known = std::ranges::find(m_clients, client, &GPointer<UMockdevIoctlClient>::get);
  if (known == m_clients.end()) {
    m_clients.emplace_back(UMOCKDEV_IOCTL_CLIENT(g_object_ref(client)));
  }
}

// Nobody tells when a file was closed; it shows when the next one is used.
void UsbfsNode::ForgetClosed() {
  for (auto next = m_clients.begin(); next != m_clients.end();) {
    const auto client = next++;
    if (umockdev_ioctl_client_get_connected(client->get()) != 0) continue;
    Forget(client->get());
    m_clients.erase(client);
  }
}

// What it held is free, what it waited for is forgotten.
void UsbfsNode::Forget(Client client) {
  const auto isIts = [client](const Urb& urb) { return urb.owner == client; };
  m_inFlight.remove_if(isIts);
  m_done.remove_if(isIts);
  m_reapers.remove_if([client](const Reaper& one) { return one.client == client; });
  m_claimers.remove_if([client](const Claimer& one) { return one.client == client; });
  for (Interface& one : m_interfaces) {
    if (one.owner == client) one = {};
  }
  m_front.Released(m_environment.now());
}

// --- whose the interfaces are ---

int UsbfsNode::GetCapabilities(Call& call) {
  call.As<std::uint32_t>() = USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_NO_PACKET_SIZE_LIM |
                             USBDEVFS_CAP_BULK_SCATTER_GATHER | USBDEVFS_CAP_REAP_AFTER_DISCONNECT;
  return 0;
}

int UsbfsNode::GetDriver(Call& call) {
  auto& question = call.As<usbdevfs_getdriver>();
  if (question.interface >= m_interfaces.size()) return EINVAL;
  const std::string& driver = m_interfaces[question.interface].driver;
  if (driver.empty()) return ENODATA;
  std::memset(question.driver, 0, sizeof question.driver);
  driver.copy(question.driver, sizeof question.driver - 1);
  return 0;
}

int UsbfsNode::DriverIoctl(Call& call) {
  const auto& request = call.As<usbdevfs_ioctl>();
  if (request.ifno < 0 || static_cast<std::size_t>(request.ifno) >= m_interfaces.size()) {
    return EINVAL;
  }
  const auto number = static_cast<unsigned>(request.ifno);
  switch (static_cast<unsigned>(request.ioctl_code)) {
    case USBDEVFS_DISCONNECT: return Detach(number);
    case USBDEVFS_CONNECT: return Attach(number);
    default: return ENOTTY;
  }
}

// The driver looks at the device and takes it only whole.
int UsbfsNode::Attach(unsigned number) {
  if (!m_interfaces[number].driver.empty()) return EBUSY;
  const bool free =
      std::ranges::all_of(m_interfaces, [](const Interface& one) { return one.driver.empty(); });
  for (Interface& one : m_interfaces) {
    if (free) one.driver = m_driver;
  }
  return 0;
}

std::vector<unsigned> UsbfsNode::HeldByDriver() const {
  std::vector<unsigned> held;
  for (unsigned number = 0; number < m_interfaces.size(); ++number) {
    if (!m_driver.empty() && m_interfaces[number].driver == m_driver) held.push_back(number);
  }
  return held;
}

int UsbfsNode::Detach(unsigned number) {
  if (m_interfaces[number].driver.empty()) return ENODATA;
  m_detached.push_back(number);
  if (m_interfaces[number].driver == kUsbfs) {
    m_interfaces[number] = {};
    return 0;
  }
  for (Interface& one : m_interfaces) {
    if (one.driver != kUsbfs) one = {};
  }
  return 0;
}

int UsbfsNode::DisconnectClaim(Call& call) {
  const auto& request = call.As<usbdevfs_disconnect_claim>();
  if (request.interface >= m_interfaces.size()) return EINVAL;
  const std::string& driver = m_interfaces[request.interface].driver;
  const bool isNamed = driver == request.driver;
  const bool mustBe = (request.flags & USBDEVFS_DISCONNECT_CLAIM_IF_DRIVER) != 0;
  const bool mustNotBe = (request.flags & USBDEVFS_DISCONNECT_CLAIM_EXCEPT_DRIVER) != 0;
  if (!driver.empty()) {
    if ((mustBe && !isNamed) || (mustNotBe && isNamed)) return EBUSY;
    Detach(request.interface);
  }
  return Claim(call.client, request.interface);
}

int UsbfsNode::ClaimInterface(Call& call) {
  const unsigned number = call.As<unsigned>();
  const int error = Claim(call.client, number);
  if (error != EBUSY || m_interfaces[number].driver != kUsbfs) return error;
  m_claimers.push_back({call.client, number, m_environment.now() + kCloseIsNoticed});
  m_environment.wake();
  return kLater;
}

// False when the client has to wait on.
bool UsbfsNode::ClaimNow(const Claimer& claimer, SimTime now) {
  ForgetClosed();
  const int error = Claim(claimer.client, claimer.number);
  if (error == EBUSY && now < claimer.until) return false;
  umockdev_ioctl_client_complete(claimer.client, error == 0 ? 0 : -1, error);
  return true;
}

int UsbfsNode::Claim(Client client, unsigned number) {
  if (number >= m_interfaces.size()) return ENOENT;
  Interface& wanted = m_interfaces[number];
  if (wanted.owner == client) return 0;
  if (!wanted.driver.empty()) return EBUSY;
  wanted = {kUsbfs, client};
  return 0;
}

int UsbfsNode::ReleaseInterface(Call& call) {
  const unsigned number = call.As<unsigned>();
  if (number >= m_interfaces.size() || m_interfaces[number].owner != call.client) return EINVAL;
  m_interfaces[number] = {};
  return 0;
}

// --- requests that the kernel makes for the host ---

int UsbfsNode::Standard(std::uint8_t recipient, std::uint8_t request, unsigned value,
                        unsigned index) {
  const UsbResult result = m_front.Control(
      {recipient, request, static_cast<std::uint16_t>(value), static_cast<std::uint16_t>(index), 0},
      {}, m_environment.now());
  return result.status == UsbStatus::Done ? 0 : EPIPE;
}

int UsbfsNode::SetConfiguration(Call& call) {
  const bool inUse =
      std::ranges::any_of(m_interfaces, [](const Interface& one) { return !one.driver.empty(); });
  return inUse ? EBUSY : Standard(kDevice, kSetConfigurationRequest, call.As<unsigned>(), 0);
}

int UsbfsNode::SetInterface(Call& call) {
  const auto& request = call.As<usbdevfs_setinterface>();
  if (const int error = Claim(call.client, request.interface); error != 0) return error;
  return Standard(kInterface, kSetInterfaceRequest, request.altsetting, request.interface);
}

int UsbfsNode::ClearHalt(Call& call) {
  const unsigned endpoint = call.As<unsigned>();
  const auto number = InterfaceOf(endpoint);
  if (!number) return ENOENT;
  if (const int error = Claim(call.client, *number); error != 0) return error;
  return Standard(kEndpoint, kClearFeature, 0, endpoint);
}

int UsbfsNode::Reset(Call& /*call*/) { return 0; }

// --- transfers ---

std::optional<unsigned> UsbfsNode::InterfaceOf(unsigned endpoint) const {
  std::optional<unsigned> current;
  std::optional<unsigned> found;
  ForEachDescriptor(m_front.ConfigurationDescriptor(), [&](std::span<const std::uint8_t> one) {
    if (one[1] == kInterfaceDescriptor) current = one[2];
    if (one[1] == kEndpointDescriptor && one[2] == endpoint) found = current;
  });
  return found;
}

// Who transfers without having claimed claims by it, or is refused.
int UsbfsNode::ClaimFor(const Urb& urb) {
  std::optional<unsigned> number = InterfaceOf(urb.Head().endpoint);
  if (IsControl(urb.Head())) {
    if (urb.Bytes().size() < kSetupSize) return EINVAL;
    const tavosim::SetupPacket setup = SetupOf(urb.Bytes());
    constexpr unsigned kVendor = 0x40;
    constexpr unsigned kTypeMask = 0x60;
    constexpr unsigned kRecipientMask = 0x1F;
    const bool isFree = (setup.requestType & kTypeMask) == kVendor ||
                        (setup.requestType & kRecipientMask) != kInterface;
    if (isFree) return 0;
    number = setup.index & 0xFFU;
  }
  return number ? Claim(urb.owner, *number) : ENOENT;
}

int UsbfsNode::SubmitUrb(Call& call) {
  Urb urb{call.client, std::move(call.data), {}};
  if (const int length = urb.Head().buffer_length; length > 0) {
    urb.buffer.reset(umockdev_ioctl_data_resolve(urb.data.get(), offsetof(usbdevfs_urb, buffer),
                                                 static_cast<std::size_t>(length), nullptr));
    if (!urb.buffer) return EFAULT;
  }
  if (const int error = ClaimFor(urb); error != 0) return error;
  m_inFlight.push_back(std::move(urb));
  m_environment.wake();
  return 0;
}

int UsbfsNode::DiscardUrb(Call& call) {
  gulong address = 0;
  std::memcpy(&address, umockdev_ioctl_client_get_arg(call.client)->data, sizeof address);
  const auto urb = std::ranges::find_if(m_inFlight, [&](const Urb& one) {
    return one.owner == call.client && one.data->client_addr == address;
  });
  if (urb == m_inFlight.end()) return EINVAL;
  Finish(urb, -ENOENT);
  return 0;
}

int UsbfsNode::ReapUrb(Call& call) { return ReapUntil(call, std::nullopt); }

int UsbfsNode::ReapUrbNow(Call& call) {
  return ReapUntil(call, m_environment.now() + kNothingToReap);
}

int UsbfsNode::ReapUntil(Call& call, std::optional<SimTime> until) {
  m_reapers.push_back({call.client, std::move(call.data), until});
  m_environment.wake();
  return kLater;
}

void UsbfsNode::Finish(std::list<Urb>::iterator urb, int status) {
  urb->Head().status = status;
  m_done.splice(m_done.end(), m_inFlight, urb);
  m_environment.wake();
}

UsbResult UsbfsNode::Transfer(const Urb& urb, SimTime now) {
  const auto endpoint = static_cast<std::uint8_t>(urb.Head().endpoint);
  if (IsControl(urb.Head())) {
    return m_front.Control(SetupOf(urb.Bytes()), urb.Bytes().subspan(kSetupSize), now);
  }
  if ((endpoint & kToHost) != 0) return m_front.In(endpoint, urb.Bytes().size(), now);
  return m_front.Out(endpoint, urb.Bytes(), now);
}

void UsbfsNode::MoveTransfers(SimTime now) {
  std::array<bool, 256> blocked{};  // an endpoint serves its URBs in their order
  for (auto next = m_inFlight.begin(); next != m_inFlight.end();) {
    const auto urb = next++;
    const auto endpoint = static_cast<std::uint8_t>(urb->Head().endpoint);
    if (blocked[endpoint]) continue;
    const UsbResult result = Transfer(*urb, now);
    blocked[endpoint] = result.status == UsbStatus::NotReady || result.status == UsbStatus::Gone;
    if (blocked[endpoint]) continue;

    const std::size_t offset = IsControl(urb->Head()) ? kSetupSize : 0;
    const bool in = offset == 0 ? (endpoint & kToHost) != 0 : (urb->Bytes()[0] & kToHost) != 0;
    const std::size_t room = urb->Bytes().size() - offset;
    const std::size_t count = in ? std::min(result.data.size(), room) : room;
    if (in) std::copy_n(result.data.begin(), count, urb->Bytes().subspan(offset).begin());
    const bool done = result.status == UsbStatus::Done;
    urb->Head().actual_length = done ? static_cast<int>(count) : 0;
    Finish(urb, done ? 0 : -EPIPE);
  }
}

// False when the client has to wait on.
bool UsbfsNode::Reap(Reaper& reaper, SimTime now) {
  const auto urb = std::ranges::find(m_done, reaper.client, &Urb::owner);
  if (urb != m_done.end()) {
    umockdev_ioctl_data_set_ptr(reaper.place.get(), 0, urb->data.get());
    umockdev_ioctl_client_complete(reaper.client, 0, 0);
    m_done.erase(urb);
    return true;
  }
  const bool waits = m_connected && (!reaper.until || now < *reaper.until);
  if (!waits) umockdev_ioctl_client_complete(reaper.client, -1, m_connected ? EAGAIN : ENODEV);
  return !waits;
}

std::optional<SimTime> UsbfsNode::Work(SimTime now) {
  if (m_connected) MoveTransfers(now);
  m_reapers.remove_if([&](Reaper& reaper) { return Reap(reaper, now); });
  m_claimers.remove_if([&](const Claimer& claimer) { return ClaimNow(claimer, now); });
  std::optional<SimTime> due;
  if (!m_inFlight.empty()) due = m_front.NextDue(now);
  const auto consider = [&due](std::optional<SimTime> other) {
    if (other && (!due || *other < *due)) due = other;
  };
  for (const Reaper& reaper : m_reapers) consider(reaper.until);
  if (!m_claimers.empty()) consider(now + kLookForClosed);
  return due;
}

void UsbfsNode::Disconnect() {
  m_connected = false;
  while (!m_inFlight.empty()) Finish(m_inFlight.begin(), -ESHUTDOWN);
  for (Interface& one : m_interfaces) one = {};
}

}  // namespace tavo::test
