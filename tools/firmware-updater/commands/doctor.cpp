// doctor: why a device cannot be reached, and the step that cures it.
#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <ostream>
#include <vector>

#include "commands/commands.h"
#include "device/device_survey.h"
#include "device/inquiry.h"
#include "device/refused_text.h"
#include "device/session.h"
#include "device/target_choice.h"
#include "device/usb_host.h"
#include "platform/d2xx.h"
#include "system/system.h"
#include "text/by_system.h"
#include "text/json.h"
#include "text/log_platform.h"
#include "text/options.h"
#include "text/text_format.h"

namespace tavo::tool {
namespace {

constexpr int kDocumentVersion = 1;
constexpr std::array<std::uint32_t, 8> kUsualRates{19200, 115200, 9600,   38400,
                                                   57600, 230400, 460800, 921600};
// An update takes the device from the first two and gives it back; the third stands for a program.
constexpr std::array kHarmlessDrivers{"cdc_acm", "ftdi_sio", "usbfs"};

struct Options {
  TargetOptionsValues target{};
  bool probe = false;
  bool json = false;

  bool NamesDevice() const { return !target.usbPort.empty() || !target.ftdiSerial.empty(); }
};

struct Finding {
  std::string name;    // stable, for scripts
  std::string device;  // as an option selects it; empty: it is about no single one
  std::string text;
  std::string cure;
};

std::string NameOf(TransportKind kind, const std::string& address) {
  return address.empty() ? address : TargetOptions({.kind = kind, .address = address});
}

std::string NameOf(const TargetOptionsValues& named) {
  return named.ftdiSerial.empty() ? NameOf(TransportKind::Usb, named.usbPort)
                                  : NameOf(TransportKind::Ftdi, named.ftdiSerial);
}

// The kernel's name selects a USB device, but not an adapter.
std::string NameOf(const HostDevice& device) {
  const bool isUsb = KindOfUsb(device.vendorId, device.productId) == TransportKind::Usb;
  return isUsb ? NameOf(TransportKind::Usb, device.name) : "adapter " + device.name;
}

class Diagnosis {
 public:
  Diagnosis(const Machine& machine, const Options& options)
      : m_machine(machine), m_options(options), m_host(machine.root) {}

  ExitCode Run() {
    std::string trouble;
    m_devices = SurveyDevices(m_machine, &trouble, [this](const FoundDevice& device) {
      return IsWanted(m_options.target, device);
    });
    std::erase_if(m_devices, [this](const FoundDevice& device) {
      return !IsWanted(m_options.target, device);
    });
    if (!trouble.empty()) Find({"usb-failed", "", trouble, "check that libusb may use USB here"});
    LookForLibrary();
    for (const HostDevice& device : m_host.Devices()) {
      if (IsMeant(device)) Examine(device);
    }
    for (const FoundDevice& device : m_devices) AddObstacles(device);
    if (m_devices.empty() && m_findings.empty()) Find(NotConnected());
    if (m_options.probe) Probe();
    Report();
    return m_findings.empty() ? ExitCode::Done : ExitCode::NoDevice;
  }

 private:
  void Find(Finding finding) { m_findings.push_back(std::move(finding)); }
  bool Knows(const std::string& name) const {
    return std::ranges::count(m_findings, name, &Finding::name) > 0;
  }

  // --- the device that the user means; without a name, all ---

  bool IsMeant(const HostDevice& device) const {
    const TargetOptionsValues& target = m_options.target;
    const auto kind = KindOfUsb(device.vendorId, device.productId);
    if (!kind) return false;
    if (!m_options.NamesDevice()) return true;
    if (*kind == TransportKind::Usb) {
      return std::ranges::any_of(
          m_devices, [&](const FoundDevice& found) { return KernelName(found) == device.name; });
    }
    // The channels of an adapter add a letter to its serial number.
    return !device.serialNumber.empty() && target.ftdiSerial.starts_with(device.serialNumber);
  }

  Finding NotConnected() const {
    const std::string named = NameOf(m_options.target);
    const bool anyUsb = kSystem == System::Windows || m_host.HasUsb();
    return {"not-connected", named,
            named.empty() ? std::string("no device is connected: looked for ") + kSearchedFor
                          : "it is not connected; `firmware-updater list` shows what is",
            anyUsb ? "check the cable, the hub and the device's power"
                   : "the system has no USB: pass the device through to this container or virtual "
                     "machine"};
  }

  void LookForLibrary() {
    if (kSystem != System::Windows) return;
    std::uint32_t count = 0;
    if (m_machine.adapters.CreateDeviceInfoList(&count) == kD2xxOk) return;
    Find({"no-adapter-library", "", "FTD2XX.dll, through which adapters are used, was not found",
          "install the adapter maker's D2XX driver if the device is at an FTDI adapter"});
  }

  // --- what the machine knows ---

  void Examine(const HostDevice& device) {
    CheckAccess(device);
    for (const auto& [interface, driver] : device.bound) {
      if (std::ranges::count(kHarmlessDrivers, driver) > 0) continue;
      Find({"other-driver", NameOf(device), "the kernel's driver " + driver + " has it",
            "run `echo " + interface + " | sudo tee /sys/bus/usb/drivers/" + driver + "/unbind`"});
    }
    const bool hasTerminal = device.files.size() > 1;
    if (hasTerminal && !device.ignoredByModemManager && m_host.Runs("ModemManager")) {
      Find({"modem-manager", NameOf(device), "ModemManager runs and may send to it in mid-update",
            RuleCure(device.vendorId, device.productId, "ENV{ID_MM_DEVICE_IGNORE}=\"1\"")});
    }
    for (const Holder& holder : m_host.HoldersOf(device, &m_hidden)) {
      Find({"held", NameOf(device),
            holder.program + " (process " + holder.process + ") has " + holder.file + " open",
            "run `kill " + holder.process + "`"});
    }
  }

  void CheckAccess(const HostDevice& device) {
    const std::string file = device.files.front().string();
    const auto access = AccessTo(m_machine.root / device.files.front().relative_path());
    if (!access || access->granted) return;
    const std::string denied = "you may not open " + file + " (" + access->owner + " " +
                               access->group + Format(" %04o", access->mode) + ")";
    const std::string rule = m_host.RuleFor(device);
    constexpr unsigned kGroupMay = 0060;
    if (rule.empty()) {
      Find({"no-rule", NameOf(device), denied + ", and no udev rule names it",
            RuleCure(device.vendorId, device.productId)});
    } else if (access->group != "root" && (access->mode & kGroupMay) == kGroupMay &&
               !access->inGroup) {
      Find({"not-in-group", NameOf(device), denied + ", and you are not in its group",
            "run `sudo usermod -aG " + access->group + " $USER`, then log in again"});
    } else {
      Find({"rule-without-effect", NameOf(device),
            denied + ", although " + rule +
                " names it: TAG+=\"uaccess\" admits whoever sits at the machine",
            "plug it in again; for SSH and services, add `MODE=\"0660\", GROUP=\"a group of "
            "yours\"` "
            "to its rule"});
    }
  }

  // Those that have not been explained by the above.
  void AddObstacles(const FoundDevice& device) {
    for (const Obstacle& obstacle : device.obstacles) {
      const bool explained =
          (obstacle.name == "no-permission" &&
           (Knows("no-rule") || Knows("not-in-group") || Knows("rule-without-effect"))) ||
          (obstacle.name == "in-use" && Knows("held"));
      if (explained) continue;
      const bool hidden = obstacle.name == "in-use" && m_hidden;
      Find({obstacle.name, NameOf(device.kind, device.address), obstacle.text,
            hidden ? "run this again with sudo: it then names the program" : obstacle.hint});
    }
  }

  // --- the device itself ---

  void Probe() try {
    Target target = ChooseTarget(m_machine, m_options.target);
    if (target.kind == TransportKind::Usb) return ProbeUsb(target);
    std::vector<std::uint32_t> rates{target.baudRate};
    std::ranges::copy_if(kUsualRates, std::back_inserter(rates),
                         [&](std::uint32_t rate) { return rate != target.baudRate; });
    for (std::size_t i = 0; i < rates.size() && !m_responds; ++i) {
      Target tried = target;
      tried.baudRate = rates[i];
      m_machine.err << "Asking at " << tried.baudRate << " baud." << std::endl;
      m_responds = Responds(tried);
      if (!m_responds || i == 0) continue;
      Find({"wrong-baud", NameOf(target.kind, target.address),
            Format("it responds at %u baud, not at %u", tried.baudRate, target.baudRate),
            Format("use --baud %u", tried.baudRate)});
    }
    if (!m_responds) {
      FindSilence(target, "at any usual baud rate",
                  "check the device's power and the line between adapter and device");
    }
  } catch (const Refusal& refusal) {
    if (m_findings.empty()) {
      Find({refusal.name, NameOf(m_options.target), refusal.text, refusal.hint});
    }
  }

  void ProbeUsb(const Target& target) {
    m_responds = Responds(target);
    if (!m_responds) {
      FindSilence(target, "", "switch the device off and on, then run this again in ten seconds");
    }
  }

  void FindSilence(const Target& target, const std::string& when, const std::string& cure) {
    const std::string came = NoAnswerAmong(m_refused);
    Find({"silent", NameOf(target.kind, target.address),
          "it does not respond" + (when.empty() ? "" : " " + when) +
              (came.empty() ? "" : "; " + came),
          m_refused.Total() > 0 && target.kind == TransportKind::Usb
              ? HintOn(m_refused, target.kind)
              : cure});
  }

  bool Responds(const Target& target) {
    LogPlatform quiet(m_machine.platform, {}, nullptr);
    Session session(m_machine, quiet);
    session.Open(target);
    Inquiry inquiry(session.Transport(), quiet,
                    [this](const std::string& text) { m_machine.err << text << std::endl; });
    const bool usb = target.kind == TransportKind::Usb;
    if (!usb) TakeEcho(inquiry, session.Transport());
    const DeviceReport report = AskWhoAnswers(inquiry, usb ? Patience::Full : Patience::Brief);
    m_refused += inquiry.Refused();
    return report.AnythingAnswered();
  }

  // The echo of the line needs no device and no rate. It is found once; then every question uses it.
  void TakeEcho(Inquiry& inquiry, ICommInterface& transport) {
    const bool wanted = m_options.target.echo;
    if (!m_echo) {
      m_echo = inquiry.LineEchoes();
      if (*m_echo != wanted) {
        const Refusal refusal = EchoRefusal(*m_echo, {});
        Find({refusal.name, NameOf(m_options.target), refusal.text, refusal.hint});
      }
    }
    transport.SetEcho(*m_echo);
  }

  // --- the report ---

  void Report() const {
    if (m_options.json) return WriteJson();
    for (const Finding& finding : m_findings) {
      m_machine.out << InLines(m_machine,
                               (finding.device.empty() ? "" : Displayable(finding.device) + ": ") +
                                   Displayable(finding.text) + " (" + finding.name + ")")
                    << '\n'
                    << InLines(m_machine, "hint: " + finding.cure) << '\n';
    }
    if (m_findings.empty()) {
      m_machine.out << "Nothing was found that keeps a device from being reached:\n";
      PrintDevices(m_machine, m_devices);
      m_machine.out << (m_responds ? "It responds.\n"
                                   : "Whether it responds was not tried; --probe does that.\n");
    }
  }

  void WriteJson() const {
    Json findings = Json::Array();
    for (const Finding& finding : m_findings) {
      findings.Add({{"name", finding.name},
                    {"device", finding.device.empty() ? Json() : Json(finding.device)},
                    {"text", finding.text},
                    {"hint", finding.cure}});
    }
    m_machine.out << Json{{"version", kDocumentVersion},
                          {"findings", findings},
                          {"responds", m_options.probe ? Json(m_responds) : Json()}}
                         .Text(2)
                  << '\n';
  }

  const Machine& m_machine;
  const Options& m_options;
  const UsbHost m_host;
  std::vector<FoundDevice> m_devices;
  std::vector<Finding> m_findings;
  bool m_hidden = false;  // there are processes whose files are unknown
  bool m_responds = false;
  std::optional<bool> m_echo;  // none: not tried yet
  RefusedBytes m_refused;
};

}  // namespace

void AddDoctorCommand(CLI::App& app, const Machine& machine, ExitCode& exit) {
  CommandOptions command(app, "doctor", "Find out why a device cannot be reached, and the cure");
  const auto options = std::make_shared<Options>();
  AddTargetOptions(command, options->target);
  command.Flag(
      "--probe", options->probe,
      "Also ask the device whether it responds; at an adapter, at all usual baud rates and "
      "with or without echo");
  command.Flag("--json", options->json, "Write one JSON document");
  command.Footer(
      "Looks at rules, rights, drivers and programs. Nothing is sent to a device without --probe. "
      "Ends with exit code 3 when something was found.\n\n"
      "Examples:\n"
      "  firmware-updater doctor\n"
      "  firmware-updater doctor --ftdi TAVO0001 --probe");
  command.OnRun(exit, [&machine, options] { return Diagnosis(machine, *options).Run(); });
}

}  // namespace tavo::tool
