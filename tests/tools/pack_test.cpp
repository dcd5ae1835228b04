// The files that pack writes pass inspect, hold the requested data and are what the engine loads. A
// failure leaves no file behind.
#include <gtest/gtest.h>

#include "file/package_report.h"
#include "package/adb_view.h"
#include "simulator/new_file.h"
#include "tests/tools/tool_station.h"
#include "text/text_format.h"

namespace tavo::tool {
namespace {

std::string Bytes(std::size_t count) {
  std::string bytes(count, '\0');
  for (std::size_t i = 0; i < count; ++i) bytes[i] = static_cast<char>(i * 7 % 251);
  return bytes;
}

const char* Description(int adbType) {
  switch (adbType) {
    case 5: return " --entry 0x0501=8.4.3.1 --entry 0x0502=0x8432,8.4.3.15";
    case 6: return " --hardware-id 8.4.1.0 --mcu-id 0x100";
    case 7: return " --entry 0x0501=8.4.3.1 --entry 0x0502=0x8432,8.4.3.15 --mcu-id 0x103";
    default: return " --hardware-id 0x8410 --mcu-id 0x105";
  }
}

class Pack : public testing::Test {
 protected:
  ExitCode operator()(const std::string& arguments) { return run("pack " + arguments); }

  std::ptrdiff_t FilesInFolder() const {
    const std::filesystem::directory_iterator files(run.Path(""));
    return std::distance(begin(files), end(files));
  }

  ToolMachine station;
  CommandRun& run = station.run;
};

TEST_F(Pack, EveryAdbTypeAndAddressWidthComesBackAsItWasAskedFor) {
  const std::string content = Bytes(3000);
  run.Write("app.bin", content);
  for (int adbType = 1; adbType <= 7; ++adbType) {
    for (const std::uint32_t address : {0x4000u, 0x14000u, 0xFEF000u}) {
      const std::string kind = "--adb-type " + std::to_string(adbType);
      SCOPED_TRACE(kind + " at " + std::to_string(address));
      ASSERT_EQ(
          (*this)("--force --image @app.bin -o @fw.zip --raw @raw.bin --size 4096 --address " +
                  Hex(address) + " " + kind + Description(adbType)),
          ExitCode::Done)
          << run.Err();
      const PackageReport report = ReportOn(run.Path("fw.zip").string());
      ASSERT_TRUE(report.CouldBeWritten()) << report.problem;
      EXPECT_TRUE(report.members[0].warnings.empty());
      const ImageReport& image = report.images.at(0);
      EXPECT_EQ(image.adbType, adbType);
      EXPECT_EQ(image.image.startAddress, address);
      EXPECT_EQ(image.addressWidth, address < 0x10000 ? 2u : 3u);
      EXPECT_TRUE(image.endsInCrc);
      EXPECT_TRUE(image.warnings.empty());
      const bool hasTable = adbType == 5 || adbType == 7;
      EXPECT_EQ(image.entries.size(), hasTable ? 2u : 0u);
      if (hasTable) {
        EXPECT_EQ(image.entries[1].hardwareIds, (std::vector<std::uint16_t>{0x8432, 0x843F}));
      } else {
        EXPECT_EQ(image.hardwareIds, std::vector<std::uint16_t>{0x8410});
      }
      const std::vector<FirmwareImage> images = LoadUpdateFile(run.Path("fw.zip").string());
      ASSERT_EQ(images.size(), 1u);
      EXPECT_EQ(images[0].data, image.image.data);
      const std::string flash(images[0].data.begin(), images[0].data.end());
      EXPECT_EQ(images[0].data, ReadWholeFile(run.Path("raw.bin").string()));
      EXPECT_EQ(flash.substr(0, 3100), content + std::string(100, '\xFF'));
    }
  }
}

TEST_F(Pack, SizeIsTheNextWholeKibUnlessGiven) {
  const std::string base = "--image @app.bin --address 0x4000 --adb-type 2 --hardware-id 8.4.1.0 ";
  for (const auto& [content, size] : {std::pair{996u, 1024u}, {997u, 2048u}}) {
    run.Write("app.bin", Bytes(content));
    ASSERT_EQ((*this)(base + "--force -o @fw.hex"), ExitCode::Done) << run.Err();
    EXPECT_EQ(LoadUpdateFile(run.Path("fw.hex").string()).at(0).data.size(), size);
  }
}

TEST_F(Pack, ArchiveOfSeveralImagesAndFinishedBinaries) {
  ASSERT_EQ((*this)("--family plain --seed 3 -o @a.hex --raw @a.bin"), ExitCode::Done);
  ASSERT_EQ((*this)("--family 8.4.4 -o @b.hex"), ExitCode::Done) << "variant, by its numbers";
  ASSERT_EQ((*this)("--add @b.hex --add @a.hex -o @fw.zip"), ExitCode::Done) << run.Err();
  const PackageReport report = ReportOn(run.Path("fw.zip").string());
  ASSERT_EQ(report.images.size(), 2u);
  EXPECT_EQ(report.members[0].name, "b.hex");
  EXPECT_EQ(report.images[0].member, "a.hex");
  EXPECT_TRUE(
      run.Says("0x00004000 to 0x00007FFF, 16384 bytes, ADB type 6, MCU-ID 0x100, direct\n"
               "  hardware 8.4.1.0\n"))
      << run.Out();
  ASSERT_EQ((*this)("--image @a.bin --address 0x4000 -o @c.hex"), ExitCode::Done);
  EXPECT_EQ(run.Read("c.hex"), run.Read("a.hex"));
  ASSERT_EQ((*this)("--family gateway -o @d.hex"), ExitCode::Done);
  ASSERT_EQ((*this)("--add @a.hex --add @d.hex -o @mixed.zip"), ExitCode::Done);
  EXPECT_TRUE(run.Says(" tunnel 4.0\n")) << run.Out();
  EXPECT_TRUE(run.Says("warning: d.hex: route or message kind differs")) << run.Out();
}

TEST_F(Pack, WhatCannotBeBuiltIsExplainedAndLeavesNothingBehind) {
  run.Write("app.bin", Bytes(2000));
  run.Write("empty.bin", "");
  run.Write("page.hex", "<html>");
  std::filesystem::create_directory(run.Path("folder.zip"));
#ifndef _WIN32
  std::filesystem::create_symlink("missing", run.Path("loose.hex"));
#endif
  ASSERT_EQ((*this)("--family legacy -o @a.hex"), ExitCode::Done);
  run.Write("b.hex", run.Read("a.hex"));
  const auto filesBefore = FilesInFolder();
  const std::string oldOutput = run.Read("a.hex");
  const std::string app = "--image @app.bin --address 0x4000 -o @fw.hex ";
  const struct {
    std::string arguments;
    ExitCode exit;
    const char* phrase;
  } rows[] = {
      {"-o @fw.hex", ExitCode::Usage, "one of --image, --family and --add"},
      {"--family plain --add @a.hex -o @fw.zip", ExitCode::Usage, "one of --image"},
      {"--family plain -o @fw.bin", ExitCode::Usage, "does not name an update file"},
      {"--family plain -o @folder.zip --force", ExitCode::Usage, "is not a regular file"},
#ifndef _WIN32
      {"--family plain -o @loose.hex", ExitCode::Usage, "is not a regular file"},
#endif
      {"--family plain -o @a.hex", ExitCode::Usage, "exists already"},
      {"--family plain -o @fw.hex --raw @a.hex", ExitCode::Usage, "exists already"},
      {"--family plain -o @fw.hex --raw @./fw.hex", ExitCode::Usage, "the same file"},
      {"--family plain -o @missing/fw.hex", ExitCode::Usage, "cannot write"},
      {"--family plain -o @fw.hex --adb-type 3", ExitCode::Usage, "--adb-type requires --image"},
      {"--image @app.bin -o @fw.hex", ExitCode::Usage, "--image requires --address"},
      {"--image @app.bin --address 4000 -o @fw.hex", ExitCode::Usage, "write it with 0x"},
      {"--family nobody -o @fw.hex", ExitCode::Usage, "nobody"},
      {"--add @a.hex -o @fw.hex", ExitCode::Usage, "added to an archive"},
      {"--add @a.hex --add @a.hex -o @fw.zip", ExitCode::Usage, "two files are called 'a.hex'"},
      {"--add @a.hex --add @b.hex -o @fw.zip", ExitCode::Usage,
       "the update cannot choose between them"},
      {"--add @page.hex -o @fw.zip", ExitCode::BadFile, "an HTML page"},
      {"--add @none.hex -o @fw.zip", ExitCode::BadFile, "no such file"},
      {"--add @app.bin -o @fw.zip", ExitCode::BadFile, "only .hex files"},
      {"--image @none.bin --address 0x0 -o @fw.hex", ExitCode::BadFile, "no such file"},
      {"--image @empty.bin --address 0x0 -o @fw.hex", ExitCode::BadFile, "the file is empty"},
      {"--adb-type 8", ExitCode::Usage, "8"},
      {"--adb-type 6", ExitCode::Usage, "name one hardware id"},
      {"--adb-type 5 --hardware-id 0x8410", ExitCode::Usage, "name their hardware in entries"},
      {"--adb-type 5 --entry 0x0501", ExitCode::Usage, "'0x0501' is not an entry"},
      {"--adb-type 5 --entry 0x0501=8.4.3", ExitCode::Usage, "'8.4.3' is not a hardware id"},
      {"--adb-type 2 --hardware-id 8.4.16.0", ExitCode::Usage, "is not a hardware id"},
      {"--adb-type 2 --hardware-id 0", ExitCode::Usage, "means no hardware"},
      {"--adb-type 2 --hardware-id 0x8410 --size 2000", ExitCode::Usage, "2000 bytes long, but"},
      {"--adb-type 2 --hardware-id 0x8410 --size 10", ExitCode::Usage, "too small"},
      {"--adb-type 2 --hardware-id 0x8410 --size 3000", ExitCode::Usage, "whole KiB"},
      {"--adb-type 6 --hardware-id 0x8410 --mcu-id 0x99", ExitCode::Usage, "0x099 is unknown"},
      {"--image @app.bin -o @fw.hex --adb-type 2 --hardware-id 0x8410 --address 0xFEFF00",
       ExitCode::Usage, "ends above 0xFF0000"},
      {"--hardware-id 0x8410", ExitCode::Usage, "packed unchanged"},
      {"", ExitCode::Usage, "no valid descriptor block"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.arguments);
    const bool isWhole = row.arguments.find("-o ") != std::string::npos;
    EXPECT_EQ((*this)((isWhole ? "" : app) + row.arguments), row.exit) << run.Err();
    EXPECT_TRUE(run.Complains(row.phrase)) << run.Err();
    EXPECT_EQ(FilesInFolder(), filesBefore);
  }
  EXPECT_EQ(run.Read("a.hex"), oldOutput);
}

// Another account may write to the folder: it guesses no name, and no link of its is followed.
TEST_F(Pack, AFileAppearsUnderItsNameOnlyWhenCompleteAndReplacesNoOther) {
  using tavosim::Existing;
  using tavosim::NewFile;
  const std::filesystem::path path = run.Path("new.hex");
  const auto write = [&path](Existing existing, auto meanwhile) {
    NewFile file(path, existing);
    file.Write("new");
    EXPECT_EQ(file.Temporary().extension(), ".hex");
    meanwhile();
    file.Name();
  };
  const auto appears = [this] { run.Write("new.hex", "other"); };
#ifdef _WIN32
  const auto& linkAppears = appears;
#else
  const auto linkAppears = [&path] { std::filesystem::create_symlink("victim", path); };
#endif
  const auto nothing = [] {};
  run.Write("victim", "kept");

  write(Existing::Keep, nothing);
  EXPECT_EQ(run.Read("new.hex"), "new");
  EXPECT_THROW(write(Existing::Keep, nothing), std::runtime_error) << "it exists";
  appears();
  write(Existing::Replace, nothing);
  EXPECT_EQ(run.Read("new.hex"), "new");
  for (const Existing existing : {Existing::Keep, Existing::Replace}) {
    std::filesystem::remove(path);
    EXPECT_THROW(write(existing, appears), std::runtime_error);
    EXPECT_EQ(run.Read("new.hex"), "other");
    std::filesystem::remove(path);
    EXPECT_THROW(write(existing, linkAppears), std::runtime_error);
  }
  write(Existing::Replace, nothing);
  EXPECT_FALSE(std::filesystem::is_symlink(path)) << "the link is replaced, not followed";
  EXPECT_EQ(run.Read("new.hex"), "new");
  EXPECT_EQ(run.Read("victim"), "kept");
  EXPECT_EQ(FilesInFolder(), 2) << "no temporary file is left";
}

}  // namespace
}  // namespace tavo::tool
