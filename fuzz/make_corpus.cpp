// make-corpus FOLDER: writes what each fuzz target starts from into FOLDER/TARGET, and the names of
// these files into FOLDER/TARGET.seeds, as the fuzzer's option -seed_inputs=@FILE takes them.
#include <cstdio>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz/device_script.h"
#include "simulator/frame.h"
#include "tests/support/station.h"

namespace tavo::fuzz {
namespace {

using tavosim::Firmware;
using tavosim::FirmwareRecipe;

class Corpus {
 public:
  Corpus(const std::filesystem::path& folder, const std::string& target)
      : m_folder(folder / target), m_list(folder / (target + ".seeds")) {
    std::filesystem::remove_all(m_folder);
    std::filesystem::create_directories(m_folder);
  }
  Corpus(const Corpus&) = delete;
  Corpus& operator=(const Corpus&) = delete;
  ~Corpus() { tavosim::WriteFile(m_list, m_names); }

  void Add(const std::string& input) {
    const auto path = m_folder / std::to_string(m_count++);
    tavosim::WriteFile(path, input);
    m_names += (m_names.empty() ? "" : ",") + path.string();
  }
  // Also cut off in the middle, and with one bit changed in four places.
  void AddWithDamage(const std::string& input) {
    Add(input);
    Add(input.substr(0, input.size() / 2));
    for (std::size_t place = 1; place <= 4; ++place) {
      std::string damaged = input;
      damaged[input.size() * place / 5] ^= 0x10;
      Add(damaged);
    }
  }

 private:
  std::filesystem::path m_folder;
  std::filesystem::path m_list;
  std::string m_names;
  std::size_t m_count = 0;
};

// Firmware of each family, and of each descriptor block type in both address widths.
std::vector<Firmware> SmallFirmware() {
  std::vector<Firmware> all;
  for (std::size_t number = 0; number < tavosim::kFamilies.size(); ++number) {
    FirmwareRecipe recipe = tavosim::RecipeFor(SmallFamily(number));
    recipe.size = 256;
    all.push_back(tavosim::BuildFirmware(recipe));
    for (std::uint8_t type = 0; type <= 8; ++type) {
      recipe.adbType = type;
      all.push_back(tavosim::BuildFirmware(recipe));
    }
  }
  return all;
}

void MakeHex(const std::filesystem::path& folder) {
  Corpus corpus(folder, "fuzz_hex");
  corpus.Add(":020000021000EC\n:0100100042AD\n:020000040001F9\n:01FFFF0042BF\n:00000001FF\n");
  corpus.Add(":0400000300000000AA\r\n:04000005000000FF00\r\n:0100000042FFFFBD\r\n:00000001FF\r\n");
  corpus.Add(":02000002FFFFFE\n:0100100042AD\n");
  corpus.Add(":02000004FFFFFC\n:0100100042AD\n");
  for (const std::size_t digits : {533U, 534U, 535U, 536U}) {
    corpus.Add(":" + std::string(digits, '0') + "\n");
  }
  for (const Firmware& firmware : SmallFirmware()) {
    corpus.AddWithDamage(tavosim::HexText(firmware, 16, "\n"));
  }
}

void MakeUpdateFiles(const std::filesystem::path& folder) {
  Corpus corpus(folder, "fuzz_update_file");
  std::vector<tavosim::ZipMember> members{{"folder/", ""}, {"readme.txt", "text"}};
  for (const Firmware& firmware : SmallFirmware()) {
    const std::string text = tavosim::HexText(firmware);
    if (members.size() < 9)
      members.push_back({"folder/" + std::to_string(members.size()) + ".hex", text});
    corpus.Add('\0' + text);
    corpus.Add('\1' + tavosim::ZipArchive({{"fw.hex", text}}));
  }
  corpus.AddWithDamage('\1' + tavosim::ZipArchive(members));
  corpus.AddWithDamage('\1' + tavosim::ZipArchive({{"a.hex", ":00000001FF\n"}, {"a.hex", ""}}));
}

void MakeImages(const std::filesystem::path& folder) {
  Corpus corpus(folder, "fuzz_adb");
  for (const Firmware& firmware : SmallFirmware()) {
    std::string input;
    for (int shift = 0; shift < 32; shift += 8) {
      input += static_cast<char>(firmware.startAddress >> shift);
    }
    input.append(firmware.data.begin(), firmware.data.end());
    corpus.Add(input);
  }
}

void MakeBatches(const std::filesystem::path& folder) {
  Corpus corpus(folder, "fuzz_assembler");
  std::string dialogue;
  for (std::size_t size = 0; size <= kMaxPayload; size = size * 2 + 1) {
    const std::vector<std::uint8_t> frame =
        tavosim::EncodeFrame({0x120, std::vector<std::uint8_t>(size, 0xA5)});
    const std::string whole(frame.begin(), frame.end());
    corpus.AddWithDamage(static_cast<char>(whole.size()) + whole);
    dialogue += "\1" + whole.substr(0, 1) + static_cast<char>(whole.size() - 1) + whole.substr(1);
  }
  corpus.AddWithDamage(dialogue + std::string("\0\xFF", 2) + dialogue);
}

// --- The device's side of an update that goes well ---

class Recording : public TransportObserver {
 public:
  std::string script;

  // A frame is written as its message, so that the fuzzer can change it and it stays a frame.
  void BytesReceived(bool /*ok*/, Bytes said, std::chrono::milliseconds took) override {
    m_waited += took;
    if (said.empty()) return;
    std::string bytes(said.begin(), said.end());
    std::uint8_t framed = 0;
    if (const auto frame = tavosim::DecodeFrame(said)) {
      bytes = {static_cast<char>(frame->id), static_cast<char>(frame->id >> 8)};
      bytes.append(frame->payload.begin(), frame->payload.end());
      framed = kFramed;
    }
    if (bytes.size() > kMaxSaid) throw std::runtime_error("a saying is too long");
    script += static_cast<char>(DelayCode(m_waited));
    script += static_cast<char>(bytes.size() | framed);
    script += bytes;
    m_waited = {};
  }

 private:
  std::chrono::milliseconds m_waited{0};
};

void MakeDialogues(const std::filesystem::path& folder) {
  Corpus corpus(folder, "fuzz_device");
  for (std::size_t number = 0; number < tavosim::kFamilies.size(); ++number) {
    const tavosim::Family family = SmallFamily(number);
    for (const char flags : {'\0', '\1', '\2', '\4'}) {
      const UpdateFlags updateFlags = FlagsOf(static_cast<std::uint8_t>(flags));
      // Without its tunnel such a device is out of reach.
      if (updateFlags.bootloaderOnly && family.route != 0) continue;
      Recording recording;
      recording.script = {static_cast<char>(number), flags};
      test::Station station(tavosim::OptionsFor(family), false, {}, &recording);
      if (!station.UpdateOverUsb(updateFlags)) throw std::runtime_error("an update fails");
      corpus.Add(recording.script);
    }
  }
}

}  // namespace
}  // namespace tavo::fuzz

int main(int argc, char** argv) try {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make-corpus FOLDER\n");
    return 2;
  }
  for (auto* make : {tavo::fuzz::MakeHex, tavo::fuzz::MakeUpdateFiles, tavo::fuzz::MakeImages,
                     tavo::fuzz::MakeBatches, tavo::fuzz::MakeDialogues}) {
    make(std::filesystem::absolute(argv[1]));
  }
  return 0;
} catch (const std::exception& failure) {
  std::fprintf(stderr, "make-corpus: %s\n", failure.what());
  return 1;
}
