// tavo-simulator: one simulated device behind a USB/IP server. It runs until it is told to end, so
// the device keeps its state from one host program to the next.
#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>

#include "simulator/simulator_program.h"

namespace {

constexpr const char* kExample =
    "\nExample:\n"
    "  tavo-simulator --family drive --port-path 1-4.2 --listen 3240 --fault lose:5 --state "
    "drive/\n"
    "serves a device of the family \"drive\" at port 4.2 of bus 1, which loses its fifth answer "
    "and\n"
    "keeps its flash in drive/flash.bin. Hosts reach it with the substitute libusb\n"
    "  TAVO_SIMULATORS=127.0.0.1:3240 LD_LIBRARY_PATH=<build>/substitute <host program>\n"
    "or, on a system with the vhci driver, as a device of its own\n"
    "  usbip --tcp-port 3240 attach -r 127.0.0.1 -b 1-4.2\n";

void Serve(const tavosim::SimulatorArguments& arguments) {
  const tavosim::usbip::Socket end = tavosim::EndSignal();
  tavosim::SimulatorProgram program(arguments, std::cerr);
  std::cout << "listening on 127.0.0.1:" << program.Port() << std::endl;
  program.Run(end.Fd());
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Simulates a control module on the Tavo bus, with its USB connection."};
  tavosim::SimulatorArguments arguments;
  tavosim::AddSimulatorOptions(app, arguments);
  app.footer(kExample);
  CLI11_PARSE(app, argc, argv);
  try {
    Serve(arguments);
  } catch (const std::exception& error) {
    std::cerr << "tavo-simulator: " << error.what() << std::endl;
    return 1;
  }
  return 0;
}
