#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qsfpd {

// "0a ff 10": bytes as space-separated hex pairs, the form they take on the wire and in files.
std::string to_hex(std::span<const std::uint8_t> bytes);
// Accepts pairs with or without separators (spaces, newlines); throws std::invalid_argument.
std::vector<std::uint8_t> from_hex(std::string_view text);

}  // namespace qsfpd
