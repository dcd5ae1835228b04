#include "device/place.h"

#include <cstdio>

#include "file/package_report.h"

namespace tavo::tool {
namespace {

// "4.1"; none for any other text.
std::optional<TunnelRoute> ParseRoute(const std::string& text) {
  int master = -1;
  int slave = -1;
  int length = 0;
  const bool whole = std::sscanf(text.c_str(), "%3d.%3d%n", &master, &slave, &length) == 2 &&
                     static_cast<std::size_t>(length) == text.size();
  const bool inRange = master >= 0 && master <= 255 && slave >= 0 && slave <= 255;
  return whole && inRange ? std::optional(TunnelRoute{master, slave}) : std::nullopt;
}

std::string CheckRoute(const std::string& text) {
  return ParseRoute(text) ? "" : "write it as MASTER.SLAVE, for example 4.1";
}

}  // namespace

std::string Place::Options() const {
  std::string options = TargetOptions(target);
  if (behind) {
    options += " --through " + std::to_string(behind->master) + "." + std::to_string(behind->slave);
  }
  return options;
}

Option AddThroughOption(CommandOptions& command, std::string& to) {
  return command.Value("--through", to, "Look behind the master: the tunnel to open")
      .Shown("MASTER.SLAVE")
      .Checked(CheckRoute);
}

std::optional<TunnelRoute> RouteBehind(const std::string& file, const std::string& through) {
  if (file.empty()) return ParseRoute(through);
  const PackageReport report = ReportOn(file);
  if (!report.CouldBeWritten()) {
    throw Refusal{ExitCode::BadFile, "bad-file", file + ": " + report.problem, report.hint};
  }
  const TunnelRoute route = report.images.front().route;
  return route.master == -1 ? std::nullopt : std::optional(route);
}

void CheckEcho(Inquiry& inquiry, const Place& place, const std::string& command) {
  const bool echo = place.target.echo;
  if (place.target.kind != TransportKind::Ftdi || inquiry.LineEchoes() == echo) return;
  Place corrected = place;
  corrected.target.echo = !echo;
  throw EchoRefusal(!echo, "firmware-updater " + command + " " + corrected.Options());
}

}  // namespace tavo::tool
