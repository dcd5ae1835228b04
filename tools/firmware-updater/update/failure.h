// A failure of the library as the tool tells it: a stable name, what happened, and what to do next.
#pragma once

#include <string>

#include "engine/error_code.h"
#include "update/record.h"

namespace tavo::tool {

// `text` is what the library said of it; empty where it said nothing.
Failure FailureOf(ErrorCode code, const std::string& text);

}  // namespace tavo::tool
