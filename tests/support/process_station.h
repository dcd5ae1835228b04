// Simulated devices and hosts, each a process of its own. Hosts find the devices through the substitute
// libusb. All files lie in a new folder, which is removed with the station.
//
//   ProcessStation station;
//   station.PlugIn({"--family", "plain"});
//   const Result result = station.RunHost({"usb", "", "firmware.hex"});
//
// If TAVO_WINDOWS_BUILD names the folder of a Windows build, the hosts and the tool are the programs of
// that build. They run under Wine (TAVO_WINE_BITS is 64 or 32), beside the DLL and the substitutes of both
// vendor libraries.
#pragma once

#include <cstdlib>

#include "tests/support/child_process.h"
#include "tests/support/transcript.h"

namespace tavo::test {

// How a host program ended.
struct Result {
  std::optional<int> exitCode;  // empty: it had to be killed
  std::string console;
};

class ProcessStation {
 public:
  static constexpr std::chrono::seconds kPrompt{20};    // for anything but an update
  static constexpr std::chrono::seconds kLongest{170};  // an update that waits wherever it can

  // Writes firmware.hex, and the flash content that it makes into image.bin.
  bool MakeFirmware(const std::string& family) const {
    ChildProcess tool(
        folder, {kTool, "pack", "--family", family, "--raw", "image.bin", "-o", "firmware.hex"},
        Environment(), "pack.txt");
    return tool.Wait(kPrompt) == 0;
  }

  // Starts a simulator; false if it does not come up. "The device" below is the first one.
  bool PlugIn(Words arguments) {
    const std::string number = std::to_string(m_simulators.size());
    const std::filesystem::path portFile = folder / ("port" + number);
    std::filesystem::remove(portFile);
    arguments.insert(arguments.begin(),
                     {kTool, "simulate", "--port-file", portFile, "--state", "device" + number});
    m_simulators.emplace_back(folder, arguments, Environment(), "simulator" + number + ".txt");
    if (!WaitUntil([&] { return std::filesystem::exists(portFile); }, kPrompt)) return false;
    m_addresses += (m_addresses.empty() ? "" : ",") +
                   ("127.0.0.1:" + std::to_string(std::stoi(FileText(portFile))));
    return true;
  }

  // Ends the simulators with Ctrl-C. False if one of them fails, for example because it leaked memory.
  // Their state stays, for those that are plugged in next.
  bool SwitchOff() {
    bool well = true;
    for (ChildProcess& simulator : m_simulators) well = simulator.AskToEnd(kPrompt) == 0 && well;
    m_simulators.clear();
    m_addresses.clear();
    return well;
  }

  bool IsWindows() const { return !m_windowsBuild.empty(); }

  // A copy of the program in the station's folder, so that its log lies there.
  Words Copy(const std::string& program) const {
    if (!IsWindows()) return {CopyHere(Program(program))};
    CopyHere(m_windowsBuild + "/bin/FirmwareUpdater.dll");
    CopyHere(m_windowsBuild + "/bin/simulator/libusb-1.0.dll");
    CopyHere(m_windowsBuild + "/bin/simulator/FTD2XX.dll");
    return UnderWine(CopyHere(m_windowsBuild + "/bin/" + program + ".exe"));
  }
  Result Run(const std::string& program, const Words& arguments) const {
    return RunCommand(Copy(program) + arguments);
  }
  // The tool in its place, beside the real libusb and its own substitutes.
  Result RunToolInPlace(const Words& arguments) const {
    return RunCommand(
        (IsWindows() ? UnderWine(m_windowsBuild + "/bin/firmware-updater.exe") : Words{kTool}) +
        arguments);
  }

  // The example hosts that an interpreter runs, as commands; never under Wine. The interpreter is a copy
  // in the station's folder too, so that the log lies there.
  Words PythonHost() const {
    return {CopyHere(std::filesystem::canonical("/usr/bin/python3")),
            TAVO_SOURCE_DIR "/examples/update_host.py",
            TAVO_BUILD_DIR "/lib/libFirmwareUpdater.so"};
  }
  Words CSharpHost() const {
    CopyHere(TAVO_BUILD_DIR "/lib/libFirmwareUpdater.so");
    return {CopyHere(std::filesystem::canonical("/usr/bin/mono")),
            CopyHere(Program("update_host.exe"))};
  }
  Result RunCommand(const Words& command) const {
    ChildProcess host = Start(command);
    const std::optional<int> exitCode = host.Wait(kLongest);
    std::string console = host.Output();
    std::erase(console, '\r');  // the runtime of a Windows host writes it
    return {exitCode, console};
  }
  // Starts a command, which then runs beside the test.
  ChildProcess Start(const Words& command, const std::string& output = "console.txt") const {
    return ChildProcess(folder, command, Environment(), output);
  }
  Result RunHost(const Words& arguments) const { return Run("update-host", arguments); }

  // The requests that the device has received since the last call.
  Lines TakeRequests() {
    const Lines journal = LinesOf(FileText(folder / "device0/journal.txt"));
    Lines requests;
    for (; m_journalLines < journal.size(); ++m_journalLines) {
      constexpr std::size_t kRequestColumn = 19;
      const std::string& line = journal[m_journalLines];
      if (m_journalLines == 0) continue;  // the heading
      requests.push_back(line.substr(kRequestColumn, line.find("  (") - kRequestColumn));
    }
    return WithBlocksCounted(requests);
  }
  bool FlashHoldsFirmware() const {
    const std::string image = FileText(folder / "image.bin");
    return !image.empty() && FileText(folder / "device0/flash.bin") == image;
  }
  std::string Log() const {
    std::string log = FileText(folder / "FirmwareUpdater.log");
    std::erase(log, '\r');
    return log;
  }

 private:
  const TemporaryFolder m_temporary;

 public:
  const std::filesystem::path folder = m_temporary.Path();

 private:
  static constexpr const char* kTool = TAVO_BUILD_DIR "/bin/firmware-updater";
  static std::string Program(const std::string& name) { return TAVO_BUILD_DIR "/bin/" + name; }
  static std::string FromHost(const char* variable) {
    const char* const value = std::getenv(variable);
    return value == nullptr ? "" : value;
  }
  static Words UnderWine(const std::string& program) {
    return {TAVO_SOURCE_DIR "/scripts/wine", FromHost("TAVO_WINE_BITS"), program};
  }
  std::string CopyHere(const std::filesystem::path& file) const {
    const std::filesystem::path copy = folder / file.filename();
    std::filesystem::copy_file(file, copy, std::filesystem::copy_options::overwrite_existing);
    return copy;
  }
  Words Environment() const {
    return {"PATH=/usr/sbin:/usr/bin:/sbin:/bin",
            "PYTHONHOME=/usr",  // a copy of the interpreter does not find its files by itself
            "LD_LIBRARY_PATH=" TAVO_BUILD_DIR "/substitute",
            "TAVO_SIMULATORS=" + m_addresses,
            "XDG_STATE_HOME=" + (folder / "state").string(),
            "HOME=" + FromHost("HOME"),
            "XDG_CACHE_HOME=" + FromHost("XDG_CACHE_HOME"),
            "TAVO_WINE_HOME=" + FromHost("TAVO_WINE_HOME")};
  }

  const std::string m_windowsBuild = FromHost("TAVO_WINDOWS_BUILD");
  std::vector<ChildProcess> m_simulators;
  std::string m_addresses;
  std::size_t m_journalLines = 0;
};

}  // namespace tavo::test
