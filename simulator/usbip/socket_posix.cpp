#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "simulator/usbip/socket.h"

namespace tavosim::usbip {
namespace {

bool IsPassing(int error) { return error == EAGAIN || error == EINTR; }

// Whether a connection that was begun is established.
bool IsConnected(const Socket& socket) {
  int error = 0;
  socklen_t size = sizeof error;
  return getsockopt(socket.Fd(), SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
}

}  // namespace

Socket::~Socket() {
  if (*this) close(m_fd);
}

std::optional<std::uint32_t> ParseIp(const std::string& text) {
  in_addr address{};
  if (inet_pton(AF_INET, text.c_str(), &address) != 1) return std::nullopt;
  return address.s_addr;
}

void MakeInteractive(const Socket& socket) {
  fcntl(socket.Fd(), F_SETFL, fcntl(socket.Fd(), F_GETFL) | O_NONBLOCK);
  const int on = 1;
  setsockopt(socket.Fd(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

Socket ConnectTo(std::uint32_t ip, std::uint16_t port, std::chrono::nanoseconds limit) {
  Socket socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket) return Socket();
  MakeInteractive(socket);
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(port);
  peer.sin_addr.s_addr = ip;
  if (connect(socket.Fd(), reinterpret_cast<const sockaddr*>(&peer), sizeof peer) == 0)
    return socket;
  const SocketFd fd = socket.Fd();
  if (errno != EINPROGRESS || !WaitUntilReady({&fd, 1}, Readiness::Room, limit)) return Socket();
  return IsConnected(socket) ? std::move(socket) : Socket();
}

std::optional<std::size_t> SendSome(const Socket& socket, std::span<const std::uint8_t> bytes) {
  const ssize_t sent = send(socket.Fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
  if (sent >= 0) return static_cast<std::size_t>(sent);
  return IsPassing(errno) ? std::optional<std::size_t>(0) : std::nullopt;
}

std::optional<std::size_t> ReceiveSome(const Socket& socket, std::span<std::uint8_t> buffer) {
  const ssize_t got = recv(socket.Fd(), buffer.data(), buffer.size(), 0);
  if (got > 0) return static_cast<std::size_t>(got);
  return got < 0 && IsPassing(errno) ? std::optional<std::size_t>(0) : std::nullopt;
}

void FinishSending(const Socket& socket) { shutdown(socket.Fd(), SHUT_WR); }

bool WaitUntilReady(std::span<const SocketFd> sockets, Readiness what,
                    std::chrono::nanoseconds limit) {
  const short events = what == Readiness::Input ? POLLIN : POLLOUT;
  std::vector<pollfd> polls;
  for (const SocketFd fd : sockets) polls.push_back({fd, events, 0});
  const auto left = std::max(limit, std::chrono::nanoseconds::zero());
  const auto whole = std::chrono::duration_cast<std::chrono::seconds>(left);
  const timespec timeout{whole.count(), (left - whole).count()};
  const int ready = ppoll(polls.data(), polls.size(), &timeout, nullptr);
  return ready > 0 || (ready < 0 && errno == EINTR);
}

}  // namespace tavosim::usbip
