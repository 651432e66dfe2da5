#pragma once

#include <rapidjson/error/error.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "line_index.hpp"

namespace config_check {

enum class json_type { null, boolean, number, string, array, object };

inline constexpr std::size_t no_node = static_cast<std::size_t>(-1);

// One value of the text and where it stands in it.
struct json_node {
    json_type type = json_type::null;
    std::size_t begin = 0;  // offset of its first byte
    std::size_t end = 0;    // offset just past its last byte
    std::string key;        // member name, for a member of an object
    std::size_t key_begin = 0;
    std::string text;  // a string's value
    bool boolean = false;
    double number = 0;  // a number's value, as the daemon's parser reads it
    std::size_t first_child = no_node;
    std::size_t next_sibling = no_node;
};

// Why the text is not JSON the daemon accepts, said as "expected X, found Y".
struct json_syntax_error {
    std::size_t offset;
    std::string expected;
    std::string found;
    rapidjson::ParseErrorCode code;  // the number the daemon logs
};

// A JSON text as a flat list of located values. It is read exactly as the daemon reads its files
// (rapidjson's iterative reader, default flags, a plain byte stream, nesting bounded as
// qsfpd::parse_json bounds it), so a text is refused here exactly when the daemon refuses it.
class json_outline {
  public:
    explicit json_outline(std::string text);
    // The line index and the nodes point into the text it holds.
    json_outline(const json_outline&) = delete;
    json_outline& operator=(const json_outline&) = delete;

    const std::optional<json_syntax_error>& syntax_error() const { return syntax_error_; }
    // Only for a text without syntax error.
    const json_node& root() const { return nodes_.front(); }
    std::vector<const json_node*> children(const json_node& node) const;

    std::string_view text() const { return text_; }
    const line_index& lines() const { return lines_; }
    text_position position(std::size_t offset) const { return lines_.at(offset); }
    // "a string (\"x\")", "an array", "true": what a diagnostic says was found.
    std::string describe(const json_node& node) const;

  private:
    std::string text_;
    line_index lines_;
    std::vector<json_node> nodes_;
    std::optional<json_syntax_error> syntax_error_;
};

// A text in double quotes, shortened when long, with unprintable bytes escaped.
std::string quote(std::string_view text);

}  // namespace config_check
