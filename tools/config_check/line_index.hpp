#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

namespace config_check {

struct text_position {
    std::size_t line;    // from 1
    std::size_t column;  // from 1, in characters: a UTF-8 sequence counts once
};

// Turns byte offsets of a text into line and column, as editors show them.
class line_index {
  public:
    explicit line_index(std::string_view text);
    // An offset past the end stands at the end of the text.
    text_position at(std::size_t offset) const;

  private:
    std::string_view text_;
    std::vector<std::size_t> line_starts_;
};

}  // namespace config_check
