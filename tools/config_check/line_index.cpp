#include "line_index.hpp"

#include <algorithm>

namespace config_check {

line_index::line_index(std::string_view text) : text_(text) {
    line_starts_.push_back(0);
    for (std::size_t i = 0; i < text.size(); ++i)
        if (text[i] == '\n') line_starts_.push_back(i + 1);
}

text_position line_index::at(std::size_t offset) const {
    offset = std::min(offset, text_.size());
    const auto next_line = std::upper_bound(line_starts_.begin(), line_starts_.end(), offset);
    const std::size_t start = *(next_line - 1);
    std::size_t column = 1;
    for (std::size_t i = start; i < offset; ++i)
        if ((static_cast<unsigned char>(text_[i]) & 0xC0) != 0x80) ++column;
    return {static_cast<std::size_t>(next_line - line_starts_.begin()), column};
}

}  // namespace config_check
