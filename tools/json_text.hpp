#pragma once

#include <rapidjson/document.h>

#include <string>
#include <string_view>

namespace qsfpctl {

// One line of JSON, as the daemon writes it.
std::string compact_json(const rapidjson::Value& value);
// Indented JSON for a person to read (no trailing newline).
std::string pretty_json(const rapidjson::Value& value);
// A value typed on the command line: JSON when the whole text parses as JSON, otherwise the
// text itself as a string, so `set config/adminStatus up` needs no shell quoting.
rapidjson::Document parse_cli_value(std::string_view text);

}  // namespace qsfpctl
