// Windows prescribes this order.
#include <winsock2.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <type_traits>
#include <vector>

#include "simulator/usbip/socket.h"

namespace tavosim::usbip {
namespace {

static_assert(std::is_same_v<SocketFd, SOCKET> && kNoSocket == INVALID_SOCKET);

// At the first use, because a library may not do it while it is being loaded; and never undone,
// because neither may it while it is being unloaded.
bool IsStarted() {
  static const bool started = [] {
    WSADATA data{};
    return WSAStartup(MAKEWORD(2, 2), &data) == 0;
  }();
  return started;
}

bool IsPassing(int error) { return error == WSAEWOULDBLOCK || error == WSAEINTR; }

int BoundedSize(std::size_t size) {
  constexpr std::size_t kMost = std::numeric_limits<int>::max();
  return static_cast<int>(std::min(size, kMost));
}

// Whether a connection that was begun is established.
bool IsConnected(const Socket& socket) {
  int error = 0;
  int size = sizeof error;
  return getsockopt(socket.Fd(), SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error), &size) ==
             0 &&
         error == 0;
}

short EventsFor(Readiness awaited) {
  switch (awaited) {
    case Readiness::Input: return POLLIN;
    case Readiness::Room: return POLLOUT;
    case Readiness::InputOrRoom: break;
  }
  return POLLIN | POLLOUT;
}

// Not for child processes.
Socket NewSocket() {
  if (!IsStarted()) return Socket();
  return Socket(WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0,
                           WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT));
}

}  // namespace

Socket::~Socket() {
  if (*this) closesocket(m_fd);
}

std::optional<std::uint32_t> ParseIp(const std::string& text) {
  in_addr address{};
  if (!IsStarted() || inet_pton(AF_INET, text.c_str(), &address) != 1) return std::nullopt;
  return address.s_addr;
}

void MakeInteractive(const Socket& socket) {
  u_long nonBlocking = 1;
  ioctlsocket(socket.Fd(), static_cast<long>(FIONBIO), &nonBlocking);
  const int on = 1;
  setsockopt(socket.Fd(), IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on), sizeof on);
}

// Older systems do not report a refused connection to a waiting caller; there `limit` ends the wait.
Socket ConnectTo(std::uint32_t ip, std::uint16_t port, std::chrono::nanoseconds limit) {
  Socket socket = NewSocket();
  if (!socket) return Socket();
  MakeInteractive(socket);
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(port);
  peer.sin_addr.s_addr = ip;
  if (connect(socket.Fd(), reinterpret_cast<const sockaddr*>(&peer), sizeof peer) == 0)
    return socket;
  const bool begun = WSAGetLastError() == WSAEWOULDBLOCK;
  Watch watch{socket.Fd(), Readiness::Room};
  if (!begun || !WaitUntilReady({&watch, 1}, limit)) return Socket();
  return IsConnected(socket) ? std::move(socket) : Socket();
}

Socket ListenOn(std::uint16_t port) {
  Socket listener = NewSocket();
  MakeInteractive(listener);
  const int on = 1;  // without it, another process may take over the port
  setsockopt(listener.Fd(), SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&on),
             sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(listener.Fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(listener.Fd(), SOMAXCONN) != 0)
    throw std::runtime_error("cannot listen on 127.0.0.1:" + std::to_string(port) +
                             ", choose another port: Windows error " +
                             std::to_string(WSAGetLastError()));
  return listener;
}

std::uint16_t PortOf(const Socket& listener) {
  sockaddr_in address{};
  int size = sizeof address;
  getsockname(listener.Fd(), reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin_port);
}

Socket AcceptFrom(const Socket& listener) {
  Socket socket(accept(listener.Fd(), nullptr, nullptr));
  if (!socket) return socket;
  SetHandleInformation(reinterpret_cast<HANDLE>(socket.Fd()), HANDLE_FLAG_INHERIT, 0);
  MakeInteractive(socket);
  return socket;
}

std::optional<std::size_t> SendSome(const Socket& socket, std::span<const std::uint8_t> bytes) {
  const int sent =
      send(socket.Fd(), reinterpret_cast<const char*>(bytes.data()), BoundedSize(bytes.size()), 0);
  if (sent >= 0) return static_cast<std::size_t>(sent);
  return IsPassing(WSAGetLastError()) ? std::optional<std::size_t>(0) : std::nullopt;
}

std::optional<std::size_t> ReceiveSome(const Socket& socket, std::span<std::uint8_t> buffer) {
  const int got =
      recv(socket.Fd(), reinterpret_cast<char*>(buffer.data()), BoundedSize(buffer.size()), 0);
  if (got > 0) return static_cast<std::size_t>(got);
  return got < 0 && IsPassing(WSAGetLastError()) ? std::optional<std::size_t>(0) : std::nullopt;
}

void FinishSending(const Socket& socket) { shutdown(socket.Fd(), SD_SEND); }

bool WaitUntilReady(std::span<Watch> sockets, std::optional<std::chrono::nanoseconds> limit) {
  std::vector<WSAPOLLFD> polls;
  for (const Watch& watch : sockets) polls.push_back({watch.fd, EventsFor(watch.awaited), 0});
  // Rounded up: with less than the time left the caller would come back at once, again and again.
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(limit.value_or(std::chrono::nanoseconds()))
          .count();
  const int timeoutMs = BoundedSize(static_cast<std::size_t>(std::max<decltype(left)>(left, 0)));
  if (polls.empty()) {  // WSAPoll refuses to wait for nothing
    Sleep(limit ? static_cast<DWORD>(timeoutMs) : INFINITE);
    return false;
  }
  const int ready = WSAPoll(polls.data(), static_cast<ULONG>(polls.size()), limit ? timeoutMs : -1);
  for (std::size_t i = 0; ready > 0 && i < polls.size(); ++i) {
    sockets[i].input = (polls[i].revents & ~POLLOUT) != 0;
    sockets[i].room = (polls[i].revents & POLLOUT) != 0;
  }
  return ready > 0;
}

}  // namespace tavosim::usbip
