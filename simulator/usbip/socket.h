// Owner of one file descriptor, and the two socket settings that both ends of USB/IP use.
#pragma once

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

namespace tavosim::usbip {

class Socket {
 public:
  explicit Socket(int fd = -1) : m_fd(fd) {}
  Socket(Socket&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
  Socket& operator=(Socket&& other) noexcept {
    std::swap(m_fd, other.m_fd);
    return *this;
  }
  ~Socket() {
    if (m_fd >= 0) close(m_fd);
  }

  int Fd() const { return m_fd; }
  explicit operator bool() const { return m_fd >= 0; }

 private:
  int m_fd;
};

// Never waits in send and recv; small messages leave at once (an exchange is a ping-pong of small
// messages, which Nagle's algorithm would hold back for tens of milliseconds).
inline void MakeInteractive(int fd) {
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

inline sockaddr_in SocketAddress(in_addr_t address, in_port_t port) {
  sockaddr_in result{};
  result.sin_family = AF_INET;
  result.sin_port = htons(port);
  result.sin_addr.s_addr = address;
  return result;
}

}  // namespace tavosim::usbip
