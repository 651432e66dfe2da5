#pragma once

#include <cstdint>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace qsfpd::test {

// The bytes of a module memory dump: '#' lines are comments, data lines 16 hex bytes each, in the
// flat layout (lower page, then upper pages at page * 128 + 128).
inline std::vector<std::uint8_t> read_dump_image(const std::string& file_name) {
    const std::string path = std::string(QSFPD_MODULE_DUMPS_DIR) + "/" + file_name;
    std::ifstream in(path);
    if (!in) throw std::runtime_error("missing module dump " + path);
    std::vector<std::uint8_t> bytes;
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream words(line);
        std::string word;
        while (words >> word)
            bytes.push_back(static_cast<std::uint8_t>(std::stoul(word, nullptr, 16)));
    }
    if (bytes.empty() || bytes.size() % 16 != 0)
        throw std::runtime_error("malformed module dump " + path);
    return bytes;
}

}  // namespace qsfpd::test
