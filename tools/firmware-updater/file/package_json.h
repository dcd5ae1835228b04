// A package report as one JSON document, for scripts.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>

#include "file/package_report.h"

namespace tavo::tool {

// Begins with "version": 1. What it holds is only ever added to; the names keep their meaning.
nlohmann::ordered_json PackageJson(const PackageReport& report, std::uint32_t blockSize);

}  // namespace tavo::tool
