// A package report as one JSON document, for scripts.
#pragma once

#include <cstdint>

#include "file/package_report.h"
#include "text/json.h"

namespace tavo::tool {

// Begins with "version": 1. Later versions only add to it; names keep their meaning.
Json PackageJson(const PackageReport& report, std::uint32_t blockSize);

}  // namespace tavo::tool
