// Unpacks the members of a ZIP archive into memory, for the update file reader. Nothing is ever
// written. What is damaged is left out without a message.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace tavo {

// Member name, as stored but with every backslash turned into '/', to member bytes. The order is
// that of the bytes of the names.
using ZipMembers = std::map<std::string, std::vector<std::uint8_t>>;

// Unpacks the members for whose name `wanted` is true; the others cost nothing. Left out are
// folders, members that are encrypted, packed by an unknown method or damaged, and those that do
// not fit into memory or into what is left of kMaxUpdateTextBytes for the whole archive; unpacking
// stops there, whatever size the archive claims. Of two members of one name the later one stays.
// Empty when the archive cannot be opened. Throws nothing.
ZipMembers ExtractZipMembers(const std::string& path, bool (*wanted)(std::string_view name));

}  // namespace tavo
