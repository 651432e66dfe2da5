#include "hex_bytes.hpp"

#include <stdexcept>

namespace qsfpd {

std::string to_hex(std::span<const std::uint8_t> bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 3);
    for (auto b : bytes) {
        if (!text.empty()) text += ' ';
        text += digits[b >> 4];
        text += digits[b & 0x0f];
    }
    return text;
}

std::vector<std::uint8_t> from_hex(std::string_view text) {
    auto nibble = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    std::vector<std::uint8_t> bytes;
    int high = -1;
    for (char c : text) {
        if (c == ' ' || c == '\n' || c == '\t' || c == '\r' || c == ':') {
            if (high >= 0) throw std::invalid_argument("odd number of hex digits");
            continue;
        }
        const int v = nibble(c);
        if (v < 0) throw std::invalid_argument(std::string("not a hex digit: '") + c + "'");
        if (high < 0) {
            high = v;
        } else {
            bytes.push_back(static_cast<std::uint8_t>(high << 4 | v));
            high = -1;
        }
    }
    if (high >= 0) throw std::invalid_argument("odd number of hex digits");
    return bytes;
}

}  // namespace qsfpd
