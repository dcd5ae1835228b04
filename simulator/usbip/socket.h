// Sockets for both ends of USB/IP: TCP over IPv4, which waits only in ConnectTo and WaitUntilReady.
// One implementation for POSIX, one for Windows.
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

// How many bytes the connection has taken or given, 0 when it cannot just now; none when it is lost,
// or has been ended by the peer.
std::optional<std::size_t> SendSome(const Socket& socket, std::span<const std::uint8_t> bytes);
std::optional<std::size_t> ReceiveSome(const Socket& socket, std::span<std::uint8_t> buffer);

// Tells the peer that nothing more will come; its last bytes can still be received.
void FinishSending(const Socket& socket);

// Waits until one of the sockets has input, or room for output, or is lost, at most for `limit`;
// without sockets it just waits. True when one may be ready, false when the time is over.
enum class Readiness { Input, Room };
bool WaitUntilReady(std::span<const SocketFd> sockets, Readiness what,
                    std::chrono::nanoseconds limit);

}  // namespace tavosim::usbip
