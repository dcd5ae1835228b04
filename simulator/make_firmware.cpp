// tavo-make-firmware: writes an update file for one of the simulated device families.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "simulator/firmware_builder.h"

namespace {

using tavosim::Family;
using tavosim::kFamilies;

struct Options {
  std::string family;
  std::uint64_t seed = 1;
  std::string imagePath;
  std::string output;
};

std::vector<std::string> FamilyNames() {
  std::vector<std::string> names;
  for (const Family& family : kFamilies) names.emplace_back(family.name);
  return names;
}

const Family& FamilyNamed(const std::string& name) {
  return *std::find_if(kFamilies.begin(), kFamilies.end(),
                       [&](const Family& family) { return family.name == name; });
}

// The extension tells what to write, as it tells the updater what it reads.
std::string Extension(const std::string& path) {
  return std::filesystem::path(path).extension().string();
}

std::string CheckOutputName(const std::string& path) {
  if (Extension(path) == ".hex" || Extension(path) == ".zip") return {};
  return "'" + path + "' must end in .hex or .zip";
}

void Make(const Options& options) {
  tavosim::FirmwareRecipe recipe = tavosim::RecipeFor(FamilyNamed(options.family));
  recipe.seed = options.seed;
  const tavosim::Firmware firmware = tavosim::BuildFirmware(recipe);
  std::string file = tavosim::HexText(firmware);
  if (Extension(options.output) == ".zip") {
    file = tavosim::ZipArchive({{options.family + ".hex", std::move(file)}});
  }
  tavosim::WriteFile(options.output, file);
  if (options.imagePath.empty()) return;
  const auto* image = reinterpret_cast<const char*>(firmware.data.data());
  tavosim::WriteFile(options.imagePath, {image, firmware.data.size()});
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app("Writes an update file for a simulated device.", "tavo-make-firmware");
  app.add_option("--family", options.family, "Device family that the firmware is for")
      ->required()
      ->check(CLI::IsMember(FamilyNames()));
  app.add_option("--seed", options.seed, "Firmware of another seed has other content")
      ->capture_default_str();
  app.add_option("--image", options.imagePath,
                 "Also write the bytes that the device's flash holds after an update");
  app.add_option("OUTPUT", options.output, "Update file to write, .hex or .zip")
      ->required()
      ->check(CheckOutputName);
  CLI11_PARSE(app, argc, argv);
  try {
    Make(options);
  } catch (const std::exception& error) {
    std::cerr << "tavo-make-firmware: " << error.what() << '\n';
    return 1;
  }
  return 0;
}
