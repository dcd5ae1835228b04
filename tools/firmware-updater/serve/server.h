// Gives the page to a browser on this machine, and takes what its user asks for. Nobody else gets in: it
// listens on the loopback address alone; all but the page itself takes a secret, which is in the address
// that is shown to the user; and a request that another site has sent, or that came by another name than
// this machine's own, is refused. Reading changes nothing. What it lets in goes to the Bench.
#pragma once

#include <memory>
#include <string>

namespace tavo::tool {

class Bench;

class Server {
 public:
  // Serves from here on. Throws std::runtime_error when it cannot listen.
  explicit Server(Bench& bench);
  // Returns when the last reader has gone: the bench's events must have been closed.
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // For the user alone. The browser keeps what follows the '#' to itself.
  std::string Address() const;

 private:
  struct Http;
  std::unique_ptr<Http> m_http;
};

}  // namespace tavo::tool
