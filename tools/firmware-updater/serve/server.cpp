#include "serve/server.h"

#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <random>
#include <stdexcept>
#include <stop_token>
#include <thread>
#include <tuple>

#include "system/system.h"
#include "text/text_format.h"

namespace tavo::tool {
namespace {

using httplib::Request;
using httplib::Response;
using HandlerResponse = httplib::Server::HandlerResponse;

constexpr const char* kHost = "127.0.0.1";
constexpr int kMostPages = 12;
constexpr std::size_t kThreads = kMostPages + 12;  // a page keeps one; they sleep
constexpr std::size_t kMostHeaders = 100;
constexpr std::size_t kLongestRequest = 4096;
constexpr std::size_t kLargestFile = std::size_t{16} << 20;  // ten times the largest image's text
constexpr std::chrono::seconds kSilence{5};  // then a sign of life finds vanished pages

constexpr const char* kText = "text/plain; charset=utf-8";
constexpr const char* kPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

// 128 bits from the system's generator.
std::string MakeSecret() {
  std::random_device bits;
  return Format("%08x%08x%08x%08x", bits(), bits(), bits(), bits());
}

// Takes the same time wherever the first difference is.
bool IsSecret(const std::string& given, const std::string& secret) {
  int difference = given.size() == secret.size() ? 0 : 1;
  for (std::size_t i = 0; i < secret.size(); ++i) {
    difference |= given[std::min(i, given.size())] ^ secret[i];
  }
  return difference == 0;
}

void Refuse(Response& response, int status, const char* reason) {
  response.status = status;
  response.set_content(reason, kText);
}

// Lets a request in, or refuses it.
HandlerResponse Judge(const Request& request, Response& response, int port,
                      const std::string& secret) {
  const auto header = [&](const char* name) { return request.get_header_value(name); };
  const bool isGet = request.method == "GET";
  const std::string host = header("Host");
  const std::string at = ":" + std::to_string(port);
  const bool isHere = request.get_header_value_count("Host") == 1 &&
                      (host == kHost + at || host == "localhost" + at);
  const bool isRaw = header("Content-Type") == "application/octet-stream";
  // The library bounds a body only when its length is announced.
  const bool isBounded =
      request.has_header("Content-Length") && !request.has_header("Transfer-Encoding");
  const std::tuple<bool, int, const char*> conditions[] = {
      {request.headers.size() <= kMostHeaders, 431, "too many header lines"},
      {isHere, 403, "wrong host"},
      {!request.has_header("Origin") || header("Origin") == "http://" + host, 403, "wrong origin"},
      {!request.path.starts_with("/api/") || IsSecret(header("X-Token"), secret), 403, "no token"},
      {isGet || (request.method == "POST" && isRaw), 415, "only GET, and POST of raw bytes"},
      {isGet || isBounded, 411, "a body without its length"},
  };
  for (const auto& [isMet, status, reason] : conditions) {
    if (!isMet) return Refuse(response, status, reason), HandlerResponse::Handled;
  }
  return HandlerResponse::Unhandled;
}

void SetLimits(httplib::Server& server) {
  server.new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
  // The library would let another program listen on the same port.
  server.set_socket_options(
      [](socket_t socket) { KeepPortAlone(static_cast<std::uintptr_t>(socket)); });
  server.set_tcp_nodelay(true);
  // The rest of a refused request is never read as the next one.
  server.set_keep_alive_max_count(1);
  server.set_payload_max_length(kLargestFile);
  server.set_default_headers({{"Content-Security-Policy", kPolicy},
                              {"X-Content-Type-Options", "nosniff"},
                              {"Referrer-Policy", "no-referrer"},
                              {"Cross-Origin-Resource-Policy", "same-origin"},
                              {"Cache-Control", "no-store"}});
}

void AddReading(httplib::Server& server, EventLog& events) {
  for (const PageFile& file : PageFiles()) {
    server.Get(file.path, [&file](const Request&, Response& response) {
      response.set_content(file.text.data(), file.text.size(), file.type);
    });
  }
  server.Get("/api/events", [&events](const Request&, Response& response) {
    if (events.readers >= kMostPages) return Refuse(response, 503, "too many pages are open");
    ++events.readers;
    response.set_chunked_content_provider(
        "text/event-stream",
        [&events, place = std::uint64_t{0}](std::size_t, httplib::DataSink& sink) mutable {
          std::optional<std::string> text = events.Next(place, kSilence);
          if (!text) return sink.done(), true;
          if (text->empty()) text = ":\n\n";
          return sink.write(text->data(), text->size());
        },
        [&events](bool) { --events.readers; });
  });
}

// The answer is for the user: why nothing was done, or empty.
void AddAction(httplib::Server& server, const char* path, std::size_t most,
               const std::function<std::string(const Request& request)>& action) {
  server.Post(path, [action, most](const Request& request, Response& response) {
    if (request.body.size() > most) return Refuse(response, 413, "too large");
    response.set_content(action(request), kText);
  });
}

}  // namespace

ExitCode ServeBench(Bench& bench, const Bench::Say& say) {
  httplib::Server server;
  SetLimits(server);
  AddReading(server, bench.Events());
  AddAction(server, "/api/start", kLongestRequest,
            [&](const Request& request) { return bench.Start(Json::ParseOrNull(request.body)); });
  AddAction(server, "/api/stop", kLongestRequest,
            [&](const Request& request) { return bench.Stop(request.body); });
  AddAction(server, "/api/file", kLargestFile, [&](const Request& request) {
    return bench.TakeFile(request.get_param_value("name"), request.body);
  });
  const std::string secret = MakeSecret();
  const int port = server.bind_to_any_port(kHost);
  if (port <= 0) throw std::runtime_error("no port to listen on at 127.0.0.1");
  server.set_pre_routing_handler([=](const Request& request, Response& response) {
    return Judge(request, response, port, secret);
  });
  const std::jthread thread([&server](const std::stop_token& end) {
    const std::stop_callback stop(end, [&server] { server.stop(); });
    server.listen_after_bind();
  });
  while (!server.is_running()) std::this_thread::yield();  // else stop would do nothing
  say("Open this address in a browser on this machine; it is for you alone:");
  say("http://" + (kHost + (":" + std::to_string(port))) + "/#" + secret);
  say("Ctrl-C ends the page.");
  return bench.Run(say);
}

}  // namespace tavo::tool
