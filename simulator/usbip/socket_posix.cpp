#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
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

short EventsFor(Readiness awaited) {
  switch (awaited) {
    case Readiness::Input: return POLLIN;
    case Readiness::Room: return POLLOUT;
    case Readiness::InputOrRoom: break;
  }
  return POLLIN | POLLOUT;
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
  Watch watch{socket.Fd(), Readiness::Room};
  if (errno != EINPROGRESS || !WaitUntilReady({&watch, 1}, limit)) return Socket();
  return IsConnected(socket) ? std::move(socket) : Socket();
}

Socket ListenOn(std::uint16_t port) {
  Socket listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const int on = 1;
  setsockopt(listener.Fd(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(listener.Fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(listener.Fd(), SOMAXCONN) != 0)
    throw std::system_error(
        errno, std::generic_category(),
        "cannot listen on 127.0.0.1:" + std::to_string(port) + ", choose another port");
  return listener;
}

std::uint16_t PortOf(const Socket& listener) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  getsockname(listener.Fd(), reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin_port);
}

Socket AcceptFrom(const Socket& listener) {
  Socket socket(accept4(listener.Fd(), nullptr, nullptr, SOCK_CLOEXEC));
  if (socket) MakeInteractive(socket);
  return socket;
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

bool WaitUntilReady(std::span<Watch> sockets, std::optional<std::chrono::nanoseconds> limit) {
  std::vector<pollfd> polls;
  for (const Watch& watch : sockets) polls.push_back({watch.fd, EventsFor(watch.awaited), 0});
  const auto left =
      std::max(limit.value_or(std::chrono::nanoseconds()), std::chrono::nanoseconds());
  const auto whole = std::chrono::duration_cast<std::chrono::seconds>(left);
  const timespec timeout{whole.count(), (left - whole).count()};
  const int ready = ppoll(polls.data(), polls.size(), limit ? &timeout : nullptr, nullptr);
  if (ready < 0) return errno == EINTR;  // which has marked none
  for (std::size_t i = 0; i < polls.size(); ++i) {
    sockets[i].input = (polls[i].revents & ~POLLOUT) != 0;
    sockets[i].room = (polls[i].revents & POLLOUT) != 0;
  }
  return ready > 0;
}

}  // namespace tavosim::usbip
