// A failure of the library in the tool's words: a stable name, what happened, and what to do next.
#pragma once

#include <string>

#include "engine/error_code.h"
#include "update/record.h"

namespace tavo::tool {

// `text` is the library's own; empty where it has none. The hint is for a device on this kind of line.
Failure FailureOf(ErrorCode code, const std::string& text, TransportKind kind);

}  // namespace tavo::tool
