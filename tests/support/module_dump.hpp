#pragma once

#include <cstdint>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace qsfpd::test {

// The bytes of a memory image in testdata/module-dumps: '#' lines are comments, data lines
// hold 16 hex bytes each.
inline std::vector<std::uint8_t> load_module_dump(const std::string& file_name) {
    std::ifstream in(std::string(QSFPD_TESTDATA_DIR) + "/module-dumps/" + file_name);
    if (!in) throw std::runtime_error("missing module dump " + file_name);
    std::vector<std::uint8_t> bytes;
    for (std::string word; in >> word;) {
        if (word[0] == '#')
            std::getline(in, word);  // the rest of the comment
        else
            bytes.push_back(static_cast<std::uint8_t>(std::stoul(word, nullptr, 16)));
    }
    if (bytes.empty() || bytes.size() % 16 != 0)
        throw std::runtime_error("malformed module dump " + file_name);
    return bytes;
}

}  // namespace qsfpd::test
