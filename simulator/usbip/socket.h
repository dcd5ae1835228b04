// Sockets for both ends of USB/IP: TCP over IPv4. Only ConnectTo and WaitUntilReady wait. One
// implementation for POSIX, one for Windows.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>

namespace tavosim::usbip {

// The system's own number of a socket; on POSIX any file descriptor.
#ifdef _WIN32
using SocketFd = std::uintptr_t;
#else
using SocketFd = int;
#endif
inline constexpr SocketFd kNoSocket = static_cast<SocketFd>(-1);

// Owner of one.
class Socket {
 public:
  explicit Socket(SocketFd fd = kNoSocket) : m_fd(fd) {}
  Socket(Socket&& other) noexcept : m_fd(std::exchange(other.m_fd, kNoSocket)) {}
  Socket& operator=(Socket&& other) noexcept {
    std::swap(m_fd, other.m_fd);
    return *this;
  }
  ~Socket();

  SocketFd Fd() const { return m_fd; }
  explicit operator bool() const { return m_fd != kNoSocket; }

 private:
  SocketFd m_fd;
};

// An address such as 127.0.0.1, in network byte order; none when `text` is not one.
std::optional<std::uint32_t> ParseIp(const std::string& text);

// Never waits in sending and receiving; small messages leave at once (an exchange is a ping-pong of
// small messages, which Nagle's algorithm would hold back for tens of milliseconds).
void MakeInteractive(const Socket& socket);

// Interactive, or no socket when the connection is not established within `limit`. `ip` is in
// network byte order, `port` is not.
Socket ConnectTo(std::uint32_t ip, std::uint16_t port, std::chrono::nanoseconds limit);

// Listens on 127.0.0.1; port 0 is any free one, see PortOf. Throws std::runtime_error, with a text for
// the user, when the port is not free.
Socket ListenOn(std::uint16_t port);
std::uint16_t PortOf(const Socket& listener);

// The next connection, interactive; no socket when there is none, or the peer has already given up.
Socket AcceptFrom(const Socket& listener);

// How many bytes the connection has taken or given, 0 when it cannot just now; none when it is lost,
// or has been ended by the peer.
std::optional<std::size_t> SendSome(const Socket& socket, std::span<const std::uint8_t> bytes);
std::optional<std::size_t> ReceiveSome(const Socket& socket, std::span<std::uint8_t> buffer);

// Tells the peer that nothing more will come; its last bytes can still be received.
void FinishSending(const Socket& socket);

enum class Readiness { Input, Room, InputOrRoom };
struct Watch {
  SocketFd fd;
  Readiness awaited;
  bool input = false;  // has input, a connection to accept included, or is lost
  bool room = false;   // has room for output
};

// Waits until one of the sockets is ready or lost, at most for `limit`, and marks all that are; without
// sockets it just waits. True when one may be ready, false when the time is over.
bool WaitUntilReady(std::span<Watch> sockets, std::optional<std::chrono::nanoseconds> limit);

}  // namespace tavosim::usbip
