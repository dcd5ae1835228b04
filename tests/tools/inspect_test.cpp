// The report of inspect on good and bad update files, and that its report is what the engine gets and
// its block map what the engine writes.
#include <gtest/gtest.h>

#include "file/block_map.h"
#include "file/hex_survey.h"
#include "file/package_report.h"
#include "tests/tools/tool_station.h"

#ifndef _WIN32
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace tavo::tool {
namespace {

using tavosim::FirmwareRecipe;
using tavosim::HexText;
using tavosim::ZipArchive;

std::string HexOf(const char* family, std::uint64_t seed = 1) {
  FirmwareRecipe recipe = tavosim::RecipeFor(*tavosim::FindFamily(family));
  recipe.seed = seed;
  return HexText(BuildFirmware(recipe));
}

std::string HexOf(const FirmwareRecipe& recipe) { return HexText(BuildFirmware(recipe)); }

FirmwareRecipe Recipe(std::uint16_t mcuId, std::size_t size = 1024) {
  FirmwareRecipe recipe = tavosim::RecipeFor(*tavosim::FindFamily("plain"));
  recipe.size = size;
  recipe.mcuId = mcuId;
  return recipe;
}

std::string WithoutDescriptor() {
  FirmwareRecipe recipe = Recipe(0x100);
  recipe.validTrailer = false;
  return HexOf(recipe);
}

std::string With(std::string text, std::size_t at, char c) {
  text[at] = c;
  return text;
}

std::string Without(std::string text, std::string_view part) {
  return text.erase(text.find(part), part.size());
}

struct Inspect : testing::Test {
  Json Document(const std::string& arguments, ExitCode expected = ExitCode::Done) {
    EXPECT_EQ(run("inspect --json " + arguments), expected) << run.Err();
    return Json::Parse(run.Out());
  }

  ToolMachine station;
  CommandRun& run = station.run;
};

TEST_F(Inspect, FilesThatCouldNeverBeWrittenAreCalledByTheirFault) {
  const std::string good = HexOf("plain");
  FirmwareRecipe noMcu = Recipe(0);
  noMcu.adbType = 2;
  const std::string ambiguous = HexOf(noMcu);
  const std::string damaged = [&] {
    std::string zip = ZipArchive({{"fw.hex", good}});
    return With(zip, zip.find("PK\1\2") + 16, '?');
  }();
  std::filesystem::create_directory(run.Path("folder.zip"));
  for (const char* name : {"huge.hex", "huge.zip"}) {
    run.Write(name, ":");
    std::filesystem::resize_file(run.Path(name), std::uintmax_t{4} << 30);
  }
#ifndef _WIN32
  ASSERT_EQ(mkfifo(run.Path("pipe.hex").c_str(), 0600), 0);
  std::filesystem::create_symlink("/dev/zero", run.Path("endless.hex"));
  run.Write("secret.hex", WithoutDescriptor());
  ASSERT_EQ(chmod(run.Path("secret.hex").c_str(), 0), 0);
#endif
  const struct {
    const char* name;
    std::optional<std::string> content;
    const char* phrase;  // of the complaint or its hint
  } rows[] = {
#ifndef _WIN32
      {"pipe.hex", {}, "is a pipe"},
      {"endless.hex", {}, "is a device"},
      {"secret.hex", {}, geteuid() == 0 ? "no valid" : "permission denied"},
#endif
      {"missing.hex", {}, "no such file"},
      {"folder.zip", {}, "is a folder"},
      {"huge.hex", {}, "the file has 4294967296 bytes"},
      {"huge.zip", {}, "the file has 4294967296 bytes"},
      {"page.hex", "\n<!DOCTYPE HTML><html>", "this is an HTML page, not Intel HEX"},
      {"page.zip", "<html>", "this is an HTML page, not a ZIP archive"},
      {"packed.hex", ZipArchive({{"fw.hex", good}}), "ends in .zip"},
      {"text.zip", good, "ends in .hex"},
      {"fw.bin", good, "in neither .hex nor .zip; the content is Intel HEX"},
      {"fw", "junk", "give a .hex file"},
      {"empty.hex", "", "the file is empty"},
      {"mark.hex", "\xEF\xBB\xBF" + good, "byte order mark"},
      {"junk.hex", "\x01\x02", "begins with the byte 0x01"},
      {"end.hex", ":00000001FF\r\n", "the file has no data records"},
      {"sum.hex", With(good, 10, good[10] == '0' ? '1' : '0'), "line 1, column 42: wrong checksum"},
      {"bare.hex", WithoutDescriptor(), "no valid descriptor block"},
      {"size.hex", HexOf(Recipe(0x100, 1000)), "1000 bytes long"},
      {"mcu.hex", HexOf(Recipe(0x200)), "MCU-ID 0x200 is unknown"},
      {"empty.zip", ZipArchive({}), "the archive is empty"},
      {"cut.zip", ZipArchive({{"fw.hex", good}}).substr(0, 900), "damaged or cut off"},
      {"inner.zip", ZipArchive({{"fw.zip", ZipArchive({})}}),
       "the archive contains another one: 'fw.zip'"},
      {"none.zip", ZipArchive({{"readme.txt", "x"}}), "no member ends in .hex"},
      {"damaged.zip", damaged, "'fw.hex': it is damaged: its CRC-32"},
      {"spoilt.zip", ZipArchive({{"a.hex", good}, {"b.hex", WithoutDescriptor()}}),
       "'b.hex': the image has no valid descriptor block: the trailer at 0x000043F4 points to "
       "0x00000000, outside the image; this one member makes every update"},
      {"two.zip", ZipArchive({{"a.hex", ambiguous}, {"b.hex", ambiguous}}),
       "the update cannot choose"},
  };
  for (const auto& row : rows) {
    if (row.content) run.Write(row.name, *row.content);
    const Json document = Document("@" + std::string(row.name), ExitCode::BadFile);
    EXPECT_TRUE(run.Complains(row.phrase)) << row.name << run.Err();
    EXPECT_TRUE(run.Complains("\nhint: ")) << run.Err();
    EXPECT_EQ(document["canBeWritten"], false);
    EXPECT_NE(document["problem"], "");
  }
}

TEST_F(Inspect, AFileWithoutAHardwareIdIsNotCalledUsable) {
  FirmwareRecipe nobody = Recipe(0x100);
  nobody.adbType = 5;
  nobody.hardwareId = 0;
  nobody.entries.clear();
  run.Write("nobody.hex", HexOf(nobody));
  EXPECT_EQ(run("inspect @nobody.hex"), ExitCode::Done);
  EXPECT_TRUE(run.Says("nobody.hex: usable only with --skip-identity-check\n")) << run.Out();
}

TEST_F(Inspect, EveryMemberHasItsVerdict) {
  const std::string good = HexOf("plain");
  run.Write("fw.zip", ZipArchive({{"z.hex", good},
                                  {"folder/", ""},
                                  {"readme.txt", "x"},
                                  {"inner.zip", "x"},
                                  {"b.hex", Without(good, ":")},
                                  {"same.hex", HexOf("drive")},
                                  {"same.hex", HexOf("drive", 2)},
                                  {"zz.hex", HexOf("plain", 2)}}));
  const Json document = Document("@fw.zip");
  EXPECT_EQ(document["version"], 1);
  std::string verdicts;
  for (std::size_t i = 0; i < document["members"].Size(); ++i) {
    const Json& member = document["members"][i];
    verdicts += member["name"].Text() + " " + member["verdict"].Text();
    if (!member["image"].IsNull()) verdicts += " " + member["image"].Text();
    verdicts += "\n";
  }
  std::erase(verdicts, '"');
  EXPECT_EQ(verdicts,
            "z.hex used 1\nfolder/ folder\nreadme.txt wrong-extension\ninner.zip "
            "wrong-extension\nb.hex not-converted\nsame.hex replaced\nsame.hex used 0\nzz.hex "
            "never-chosen 2\n");
  EXPECT_EQ(document["members"][4]["line"], 1);
  EXPECT_EQ(document["members"][4]["column"], 1);
}

TEST_F(Inspect, FactsOfAnImage) {
  run.Write("fw.hex", HexOf("gateway"));
  const Json image = Document("@fw.hex --block-size 64")["images"][0];
  const Json::Object facts = {{"startAddress", 0x4000}, {"endAddress", 0x8000},
                              {"adbType", 6},           {"addressWidth", 2},
                              {"mcuId", 0x101},         {"processorId", 0x1E9749},
                              {"requestId", 0x180},     {"route", {{"master", 4}, {"slave", 0}}},
                              {"endsInCrc", true}};
  for (const auto& [name, value] : facts) EXPECT_EQ(image[name], value) << name;
  EXPECT_EQ(image["hardwareIds"][0]["module"], 14);
  EXPECT_EQ(image["writing"]["blocks"], 256);
  EXPECT_EQ(image["writing"]["map"]["rows"].Size(), 4u);

  run.Write("fw.hex", HexOf("variant"));
  const Json table = Document("@fw.hex")["images"][0];
  EXPECT_EQ(table["addressWidth"], 3);
  EXPECT_TRUE(table["route"].IsNull());
  EXPECT_EQ(table["entries"].Size(), 3u);
  EXPECT_EQ(table["entries"][2]["deviceId"], 0x0602);
  EXPECT_EQ(table["entries"][2]["hardwareIds"][1]["id"], 0x8440);
}

TEST_F(Inspect, BlockSizesThatNoUpdateCouldWriteAreRefused) {
  run.Write("fw.hex", HexOf("plain"));
  for (const char* size : {"0", "129", "-1", "x"}) {
    EXPECT_EQ(run("inspect @fw.hex --block-size=" + std::string(size)), ExitCode::Usage) << size;
  }
}

TEST_F(Inspect, NamesFromAnArchiveCannotSteerTheTerminal) {
  run.Write("fw.zip", ZipArchive({{"a\x1b[2J.hex", HexOf("plain")}, {"\xFF.txt", "x"}}));
  EXPECT_EQ(run("inspect @fw.zip"), ExitCode::Done);
  EXPECT_EQ(run.Out().find('\x1b'), std::string::npos);
  EXPECT_NO_THROW(Document("@fw.zip"));
}

TEST_F(Inspect, ScreensAreNarrow) {
  run.Write("fw.zip", ZipArchive({{std::string(50, 'n') + ".hex", HexOf("labelled")},
                                  {"b.hex", With(HexOf("plain"), 3, 'x')}}));
  run.machine.width = [] { return 70; };
  for (const bool terminal : {false, true}) {
    run.machine.terminal = terminal;
    EXPECT_EQ(run("inspect @fw.zip --block-size 1"), ExitCode::Done);
    for (const std::string& line : test::LinesOf(run.Out())) {
      const bool namesPath = line.find(station.platform.Folder()) != std::string::npos;
      EXPECT_TRUE(namesPath || line.size() <= (terminal ? 70 : 100)) << line;
    }
  }
}

// The survey agrees with the converter about every text.
HexSurvey SurveyOf(const std::string& text) {
  const std::vector<std::uint8_t> bytes(text.begin(), text.end());
  HexSurvey survey = SurveyHex(bytes);
  CIntelHexConverter converter;
  EXPECT_EQ(converter.Convert(bytes), survey.fault ? survey.fault->result : HexResult::Ok) << text;
  return survey;
}

struct HexRow {
  const char* text;
  const char* fault;  // "line:column text"; empty for none
  std::vector<const char*> warnings;
};

TEST(HexSurvey, SaysWhatTheConverterDoesAndWhy) {
  const char* const end = "line 1: no end record, so the text may be cut off";
  const HexRow rows[] = {
      {":0100000001FE\n:00000001FF\n", "", {}},
      {":0100000001FE", "", {end}},
      {":0100000001FE\n\n", "2:1 the line is empty", {}},
      {":0100000001FE\r\n :00", "2:1 a record begins with ':', not with the byte 0x20", {}},
      {":01000000G1FE\n", "1:10 'G' is not a hexadecimal digit", {}},
      {":0100000001F\n", "1:12 the last digit has no partner", {}},
      {":010000\n", "1:8 the record is too short: it has 6 digits, the shortest has 10", {}},
      {":0500000001FE\n", "1:2 the record is too short: it needs 5 data bytes and has 1", {}},
      {":0100000001FF\n", "1:12 wrong checksum: found 0xFF, expected 0xFE", {}},
      {":00000001FE\n", "1:10 wrong checksum: found 0xFE, expected 0xFF", {}},
      {":00000001FF\n:junk\n", "", {"line 2: text after the end record is ignored"}},
      {":0400000500000000FF\n:00000001FF\n",
       "",
       {"line 1: start address record, which is ignored, with a wrong checksum: found 0xFF, "
        "expected 0xF7"}},
      {":00000009F7\n:00000001FF\n",
       "",
       {"line 1: the record is of the unknown type 0x09 and is "
        "ignored"}},
      {":0100000001FE\r:00000001FF\r", "", {"line 1: text after the record is ignored", end}},
      {":0100100001EE\n:0100200001DE\n:0100000001FE\n:0100010001FD\n:00000001FF\n",
       "",
       {"line 2: gap: the record for 0x00000020 follows 0x00000010, and its bytes would be written "
        "at 0x00000001",
        "line 3: out of order: the record for 0x00000000 follows 0x00000020, and its bytes would "
        "be written at 0x00000002"}},
  };
  for (const HexRow& row : rows) {
    SCOPED_TRACE(row.text);
    const HexSurvey survey = SurveyOf(row.text);
    std::string fault;
    if (survey.fault) {
      fault = std::to_string(survey.fault->line) + ":" + std::to_string(survey.fault->column) +
              " " + survey.fault->text;
    }
    EXPECT_EQ(fault, row.fault);
    EXPECT_EQ(survey.warnings,
              (std::vector<std::string>(row.warnings.begin(), row.warnings.end())));
  }
}

// Each byte of a small text becomes each of some others.
TEST(HexSurvey, AlwaysAgreesWithTheConverter) {
  const std::string good = ":020000040001F9\r\n:0200100001FFEE\n:00000001FF\n";
  for (std::size_t at = 0; at < good.size(); ++at) {
    for (const char c : std::string("0F:\r\n G\0", 8)) SurveyOf(With(good, at, c));
  }
}

TEST(BlockMap, ShowsWhichBlocksAreWritten) {
  for (const std::string blocks : {"#", "#.#", ".-#", "#.--#", "#.--", "####.#."}) {
    FirmwareImage image;
    for (const char block : blocks)
      image.data.insert(image.data.end(), 64, block == '#' ? 7 : 0xFF);
    const BlockMap map = MapBlocks(image, 64);
    EXPECT_EQ(ScaleMap(map).rows, std::vector<std::string>{blocks});
    EXPECT_EQ(map.Count(BlockUse::Data), std::ranges::count(blocks, '#'));
    EXPECT_EQ(map.Count(BlockUse::BlankSkipped), std::ranges::count(blocks, '-'));
  }
}

TEST(BlockMap, CountsTheBytesOfFrames) {
  const FirmwareImage image{std::vector<std::uint8_t>(192, 1), 0x4000};
  const BlockMap map = MapBlocks(image, 64);
  EXPECT_EQ(map.requests, 7u);
  EXPECT_EQ(map.bytesSent, 4u * 8 + 3 * 68);
  EXPECT_EQ(map.bytesReceived, 7u * 4);
  EXPECT_DOUBLE_EQ(map.Seconds(19200), 264 * 10 / 19200.0);
}

}  // namespace
}  // namespace tavo::tool
