// Bytes that came and became no answer, in words. They tell a silent device from one whose answers are
// wrong, and the reason says what is wrong with them.
#pragma once

#include <string>

#include "device/target.h"
#include "text/json.h"
#include "transport/refused_bytes.h"

namespace tavo::tool {

// "identifier parity wrong"; with several reasons, each with its number of bytes. Empty for no bytes.
std::string ReasonsOf(const RefusedBytes& refused);

// "6 bytes came, no answer among them: identifier parity wrong". Empty for no bytes.
std::string NoAnswerAmong(const RefusedBytes& refused);

// The remedy for the reason that most of the bytes have; empty for no bytes.
std::string HintOn(const RefusedBytes& refused, TransportKind kind);

// {"parity": 6}: the reasons that occurred.
Json RefusedJson(const RefusedBytes& refused);

}  // namespace tavo::tool
