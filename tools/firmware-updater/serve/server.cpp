#include "serve/server.h"

#include <httplib.h>

#include <chrono>
#include <optional>
#include <stdexcept>
#include <thread>

#include "serve/bench.h"
#include "serve/page_files.h"
#include "serve/secret.h"
#include "system/system.h"

namespace tavo::tool {
namespace {

using httplib::ContentReader;
using httplib::Request;
using httplib::Response;
using std::chrono::seconds;

constexpr const char* kHost = "127.0.0.1";
constexpr std::size_t kMostPages = 12;
constexpr std::size_t kThreads = kMostPages + 12;  // a page keeps one; they sleep
constexpr std::size_t kLongestRequest = 4096;
constexpr std::size_t kLargestFile = std::size_t{16}
                                     << 20;  // ten times the text of the largest image
constexpr seconds kSilence{5};  // between two signs of life, by which a vanished page is noticed

constexpr const char* kPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

constexpr int kNotAllowed = 403;
constexpr int kTooLarge = 413;
constexpr int kWrongType = 415;
constexpr int kBusy = 503;

void Refuse(Response& response, int status, const std::string& reason) {
  response.status = status;
  response.set_content(reason + "\n", "text/plain; charset=utf-8");
}

// `problem` is for the user; empty: none.
void Reply(Response& response, const std::string& problem) {
  response.set_content(problem, "text/plain; charset=utf-8");
}

// The library bounds a body only when its length is announced.
std::optional<std::string> Body(const ContentReader& read, std::size_t most) {
  std::string body;
  const bool whole = read([&](const char* data, std::size_t size) {
    if (body.size() + size > most) return false;
    body.append(data, size);
    return true;
  });
  return whole ? std::optional(body) : std::nullopt;
}

}  // namespace

struct Server::Http {
  explicit Http(Bench& theBench) : bench(theBench) {
    server.new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
    // The library would let another program listen on the same port.
    server.set_socket_options(
        [](socket_t socket) { KeepPortAlone(static_cast<std::uintptr_t>(socket)); });
    server.set_tcp_nodelay(true);
    server.set_keep_alive_max_count(
        1);  // what a refused request still sends is never read as a next one
    server.set_payload_max_length(kLargestFile);
    server.set_default_headers({{"Content-Security-Policy", kPolicy},
                                {"X-Content-Type-Options", "nosniff"},
                                {"Referrer-Policy", "no-referrer"},
                                {"Cross-Origin-Resource-Policy", "same-origin"},
                                {"Cache-Control", "no-store"}});
    server.set_pre_routing_handler([this](const Request& request, Response& response) {
      return Admits(request, response) ? httplib::Server::HandlerResponse::Unhandled
                                       : httplib::Server::HandlerResponse::Handled;
    });
    server.set_exception_handler([](const Request&, Response& response, std::exception_ptr) {
      Refuse(response, 400, "the request cannot be understood");
    });
    AddPage();
    AddReading();
    AddActions();
    port = server.bind_to_any_port(kHost);
    if (port <= 0) throw std::runtime_error("no port to listen on at 127.0.0.1");
    thread = std::jthread([this] { server.listen_after_bind(); });
    while (!server.is_running()) std::this_thread::yield();  // else stop would do nothing
  }
  ~Http() { server.stop(); }
  Http(const Http&) = delete;
  Http& operator=(const Http&) = delete;

  bool Admits(const Request& request, Response& response) const {
    const std::string host = request.get_header_value("Host");
    const std::string number = ":" + std::to_string(port);
    const bool isOurs = request.get_header_value_count("Host") == 1 &&
                        (host == kHost + number || host == "localhost" + number);
    if (!isOurs) return Refuse(response, kNotAllowed, "wrong host"), false;
    if (request.has_header("Origin") && request.get_header_value("Origin") != "http://" + host) {
      return Refuse(response, kNotAllowed, "wrong origin"), false;
    }
    if (request.path.starts_with("/api/") &&
        !AreEqual(request.get_header_value("X-Token"), secret)) {
      return Refuse(response, kNotAllowed, "wrong token"), false;
    }
    const bool isRaw = request.get_header_value("Content-Type") == "application/octet-stream";
    if (request.method != "GET" && !(request.method == "POST" && isRaw)) {
      return Refuse(response, kWrongType, "only GET, and POST of raw bytes"), false;
    }
    return true;
  }

  void AddPage() {
    for (const PageFile& file : PageFiles()) {
      server.Get(file.path, [&file](const Request&, Response& response) {
        response.set_content(file.text.data(), file.text.size(), file.type);
      });
    }
  }

  void AddReading() {
    server.Get("/api/events", [this](const Request&, Response& response) {
      if (bench.Events().Readers() >= kMostPages) {
        return Refuse(response, kBusy, "too many pages are open");
      }
      const auto reader = std::make_shared<EventLog::Reader>(bench.Events());
      response.set_chunked_content_provider(
          "text/event-stream", [reader](std::size_t, httplib::DataSink& sink) {
            std::optional<std::string> events = reader->Next(kSilence);
            if (!events) return sink.done(), true;
            if (events->empty()) events = ":\n\n";
            return sink.write(events->data(), events->size());
          });
    });
  }

  void AddActions() {
    AddAction("/api/start", kLongestRequest, [this](const Request&, const std::string& body) {
      return bench.Start(Json::Parse(body));
    });
    AddAction("/api/stop", kLongestRequest, [this](const Request&, const std::string& body) {
      bench.Stop(static_cast<int>(Json::Parse(body)["job"].Number()));
      return std::string();
    });
    AddAction("/api/file", kLargestFile, [this](const Request& request, const std::string& body) {
      return bench.TakeFile(request.get_param_value("name"), body);
    });
  }

  template <typename Action>
  void AddAction(const char* path, std::size_t most, Action action) {
    server.Post(path, [action, most](const Request& request, Response& response,
                                     const ContentReader& read) {
      const std::optional<std::string> body = Body(read, most);
      if (!body) return Refuse(response, kTooLarge, "too large");
      Reply(response, action(request, *body));
    });
  }

  Bench& bench;
  const std::string secret = MakeSecret();
  int port = 0;
  httplib::Server server;
  std::jthread thread;
};

Server::Server(Bench& bench) : m_http(std::make_unique<Http>(bench)) {}

Server::~Server() = default;

std::string Server::Address() const {
  return "http://" + (kHost + (":" + std::to_string(m_http->port))) + "/#" + m_http->secret;
}

}  // namespace tavo::tool
