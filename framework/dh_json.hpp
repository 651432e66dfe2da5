#pragma once

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <string>

namespace dh {

using json_allocator = rapidjson::MemoryPoolAllocator<>;
using json_value = rapidjson::Value;

// Floating values that are not finite have no JSON form; they are written as null.
using json_writer = rapidjson::Writer<rapidjson::StringBuffer, rapidjson::UTF8<>, rapidjson::UTF8<>,
                                      rapidjson::CrtAllocator, rapidjson::kWriteNanAndInfFlag>;

std::string to_json_text(const json_value& value);
void append_json_text(std::string& out, const json_value& value);
// Appends `text` as a JSON string literal.
void append_json_string(std::string& out, std::string_view text);

// Appends `text` with every ill-formed UTF-8 sequence replaced by U+FFFD, so that what clients
// receive is valid UTF-8 whatever a file or a module's memory held. Outside JSON strings the
// text is ASCII, so the repair never touches the JSON structure.
void append_valid_utf8(std::string& out, std::string_view text);
// The same repair in place, on `text` from byte `from` on.
void repair_utf8(std::string& text, std::size_t from = 0);

}  // namespace dh
