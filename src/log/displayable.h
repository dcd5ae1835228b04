// Texts from outside as they may be shown: names in files, the texts that a device reports. A terminal
// obeys some characters instead of showing them, and others change the order of the line.
//
// For texts that are printed, never for texts that are compared.
#pragma once

#include <string>
#include <string_view>

namespace tavo {

// The text in UTF-8 with '?' for each byte of a control character (C0, DEL, C1), of a line separator or
// of a mark that changes the direction of writing, and for each byte that is not UTF-8.
std::string Displayable(std::string_view text);

}  // namespace tavo
