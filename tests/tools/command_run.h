// One run of a command of the tool that needs no device, in a folder of its own.
//
//   CommandRun run;
//   EXPECT_EQ(run(AddInspectCommand, "inspect fw.hex"), ExitCode::BadFile);
//   EXPECT_EQ(run.err.str(), "...");
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <string_view>

#include "commands.h"
#include "simulator/firmware_builder.h"
#include "testbench/fake_d2xx.h"
#include "testbench/fake_libusb.h"
#include "testbench/virtual_platform.h"

namespace tavo::tool {

class CommandRun {
 public:
  using AddCommand = void(CLI::App&, const Machine&, ExitCode&);

  // "@" in the command line stands for the folder.
  ExitCode operator()(AddCommand* add, std::string line) {
    for (auto at = line.find('@'); at != std::string::npos; at = line.find('@', at)) {
      line.replace(at, 1, Folder());
    }
    out.str("");
    err.str("");
    CLI::App app;
    ExitCode exit = ExitCode::Done;
    add(app, m_machine, exit);
    try {
      app.parse(line, false);
    } catch (const CLI::ParseError& error) {
      err << error.what();
      return ExitCode::Usage;
    }
    return exit;
  }

  std::string Folder() const { return m_platform.Folder(); }
  std::string Path(std::string_view name) const { return Folder() + std::string(name); }

  std::string Write(std::string_view name, std::string_view content) const {
    tavosim::WriteFile(Path(name), content);
    return Path(name);
  }

  std::string Read(std::string_view name) const {
    std::ifstream file(Path(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  bool Exists(std::string_view name) const { return std::filesystem::exists(Path(name)); }

  std::ostringstream out{}, err{};

 private:
  test::VirtualPlatform m_platform{};
  test::FakeLibUsb m_usb{};
  test::FakeD2xx m_adapters{};
  Machine m_machine{m_platform, m_usb, m_adapters, out, err};
};

}  // namespace tavo::tool
