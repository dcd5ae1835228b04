#include "file/package_json.h"

#include "file/block_map.h"

namespace tavo::tool {
namespace {

constexpr int kVersion = 1;

std::string_view KindName(UpdateFileKind kind) {
  switch (kind) {
    case UpdateFileKind::Hex: return "hex";
    case UpdateFileKind::Zip: return "zip";
    case UpdateFileKind::Neither: break;
  }
  return "unknown";
}

Json McuIdJson(const ImageReport& image) {
  // An id outside the image cannot be shown.
  return image.mcuId == -1 ? Json() : Json(image.mcuId);
}

Json MemberJson(const MemberReport& member) {
  Json json{
      {"name", member.name}, {"verdict", VerdictName(member.verdict)}, {"reason", member.reason}};
  if (member.line != 0) {
    json.Set("line", member.line);
    json.Set("column", member.column);
  }
  json.Set("warnings", member.warnings);
  json.Set("image", member.image);
  return json;
}

Json HardwareIdsJson(const std::vector<std::uint16_t>& ids) {
  Json list = Json::Array();
  for (const std::uint16_t id : ids) {
    const HardwareIdRecord parts = SplitHardwareId(id);
    list.Add({{"id", id},
              {"serie", parts.serie},
              {"type", parts.type},
              {"module", parts.module},
              {"variant", parts.variant}});
  }
  return list;
}

Json EntriesJson(const std::vector<EntryReport>& entries) {
  Json list = Json::Array();
  for (const EntryReport& entry : entries) {
    list.Add({{"deviceId", entry.deviceId},
              {"readable", entry.readable},
              {"hardwareIds", HardwareIdsJson(entry.hardwareIds)}});
  }
  return list;
}

Json RouteJson(const TunnelRoute& route) {
  if (route.master == -1) return {};
  return {{"master", route.master}, {"slave", route.slave}};
}

// As the screen draws it.
Json MapJson(const BlockMap& map) {
  const ScaledMap scaled = ScaleMap(map);
  return {{"blocksPerCharacter", scaled.blocksPerCharacter}, {"rows", scaled.rows}};
}

Json WritingJson(const BlockMap& map, std::size_t imageSize) {
  Json times = Json::Array();
  for (const std::uint32_t baud : kLineRates) {
    times.Add({{"baud", baud}, {"secondsAtLeast", map.Seconds(baud)}});
  }
  return {{"blockSize", map.blockSize},
          {"wholeBlocks", imageSize % map.blockSize == 0},
          {"blocks", map.blocks.size()},
          {"data", map.Count(BlockUse::Data)},
          {"blankWritten", map.Count(BlockUse::BlankWritten)},
          {"blankSkipped", map.Count(BlockUse::BlankSkipped)},
          {"map", MapJson(map)},
          {"requests", map.requests},
          {"bytesSent", map.bytesSent},
          {"bytesReceived", map.bytesReceived},
          {"times", times}};
}

Json ImageJson(const ImageReport& image, std::uint32_t blockSize) {
  return {{"member", image.member},
          {"startAddress", image.image.startAddress},
          {"endAddress", image.endAddress},
          {"size", image.image.data.size()},
          {"adbType", image.adbType},
          {"adbAddress", image.adbAddress},
          {"addressWidth", image.addressWidth},
          {"hardwareIds", HardwareIdsJson(image.hardwareIds)},
          {"hasEntryTable", image.hasEntryTable},
          {"entries", EntriesJson(image.entries)},
          {"mcuId", McuIdJson(image)},
          {"processorId", image.processorId},
          {"route", RouteJson(image.route)},
          {"requestId", image.requestId},
          {"endsInCrc", image.endsInCrc},
          {"canBeChosen", image.obstacle.empty()},
          {"obstacle", image.obstacle},
          {"warnings", image.warnings},
          {"writing", WritingJson(MapBlocks(image.image, blockSize), image.image.data.size())}};
}

}  // namespace

Json PackageJson(const PackageReport& report, std::uint32_t blockSize) {
  Json members = Json::Array();
  for (const MemberReport& member : report.members) members.Add(MemberJson(member));
  Json images = Json::Array();
  for (const ImageReport& image : report.images) images.Add(ImageJson(image, blockSize));
  return {{"version", kVersion},
          {"file", report.path},
          {"kind", KindName(report.kind)},
          {"canBeWritten", report.CouldBeWritten()},
          {"passesHardwareCheck", report.PassesHardwareCheck()},
          {"problem", report.problem},
          {"hint", report.hint},
          {"members", members},
          {"images", images}};
}

}  // namespace tavo::tool
