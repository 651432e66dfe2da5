#include "json_text.hpp"

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include "dh_json.hpp"

namespace qsfpctl {

std::string compact_json(const rapidjson::Value& value) {
    return dh::to_json_text(value);
}

std::string pretty_json(const rapidjson::Value& value) {
    rapidjson::StringBuffer buffer;
    rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(buffer);
    writer.SetIndent(' ', 2);
    value.Accept(writer);
    return std::string(buffer.GetString(), buffer.GetSize());
}

rapidjson::Document parse_cli_value(std::string_view text) {
    rapidjson::Document value;
    value.Parse(text.data(), text.size());
    if (value.HasParseError())
        value.SetString(text.data(), static_cast<rapidjson::SizeType>(text.size()),
                        value.GetAllocator());
    return value;
}

}  // namespace qsfpctl
