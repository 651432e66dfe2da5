#include "application_list_file.hpp"

#include <fmt/format.h>
#include <rapidjson/memorystream.h>

#include <cfloat>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "json_parse.hpp"
#include "msg_log.hpp"

// Choices the file's format leaves open:
// - A code element with an improper key is dropped whole: a code with a guessed field would be
//   offered to clients as if the operator had described it.
// - A parse error yields an empty custom map; the caller replaces its map as a whole, so the
//   previous rows go too (a broken file describes nothing).
// - A missing "Enhanced_mode" keeps the code as not enhanced; a mistyped one drops it.
// - A code listed twice for one part number: the first wins, as for the application map.
// - "bitrate" and "LaneCount" must be whole numbers 0..65535, the other numbers not negative and
//   within a float's range: anything else is an improper key, like a wrong type.
// - "version" and "CMISVer" of another type than string or number count as missing.
// Faults are warnings; what is read and accepted is information.

namespace qsfpd::cmis {

namespace {

constexpr const char* function_name = "allocate_custom_map";

// Upper-case hex without leading zero; none for anything but hex digits or a value above FF.
std::optional<unsigned> parse_id(std::string_view text) {
    if (text.empty()) return std::nullopt;
    unsigned value = 0;
    for (const char c : text) {
        unsigned digit = 0;
        if (c >= '0' && c <= '9')
            digit = static_cast<unsigned>(c - '0');
        else if (c >= 'a' && c <= 'f')
            digit = static_cast<unsigned>(c - 'a' + 10);
        else if (c >= 'A' && c <= 'F')
            digit = static_cast<unsigned>(c - 'A' + 10);
        else
            return std::nullopt;
        value = value * 16 + digit;
        if (value > 0xFF) return std::nullopt;
    }
    return value;
}

bool fill(const code_field& field, const json_member& member, app_code_info_t& record,
          code_verdict& verdict) {
    using type = json_member::type;
    switch (field.type) {
        case code_value::id: {
            if (member.kind != type::string) return false;
            const auto code = parse_id(member.text);
            if (!code) return false;
            verdict.code = code;
            verdict.id = fmt::format("{:X}", *code);
            record.*field.text = verdict.id;
            return true;
        }
        case code_value::text:
            if (member.kind != type::string) return false;
            record.*field.text = std::string(member.text);
            return true;
        case code_value::whole:
            if (member.kind != type::number || !(member.number >= 0) || member.number > 65535 ||
                std::floor(member.number) != member.number)
                return false;
            record.*field.whole = static_cast<std::uint16_t>(member.number);
            return true;
        case code_value::real:
            if (member.kind != type::number || !(member.number >= 0) || member.number > FLT_MAX)
                return false;
            record.*field.real = static_cast<float>(member.number);
            return true;
    }
    return false;
}

void log_code(const app_code_info_t& record, unsigned code, const std::string& log_tag) {
    MSG_LOG(msg_log::info, log_tag) << "custom application. key: " << code;
    MSG_LOG(msg_log::info, log_tag) << "custom application. IdHex: " << record.IdHex;
    MSG_LOG(msg_log::info, log_tag) << "custom application. Interface: " << record.Interface;
    MSG_LOG(msg_log::info, log_tag) << "custom application. Bitrate: " << record.Bitrate;
    MSG_LOG(msg_log::info, log_tag) << "custom application. LaneCount: " << record.LaneCount;
    MSG_LOG(msg_log::info, log_tag)
        << "custom application. LaneSignalRate: " << record.LaneSignalRate;
    MSG_LOG(msg_log::info, log_tag) << "custom application. Modulation: " << record.Modulation;
    MSG_LOG(msg_log::info, log_tag) << "custom application. B/UI: " << record.BitsPerUnitInterval;
    MSG_LOG(msg_log::info, log_tag) << "custom application. FEC: " << record.FEC;
    MSG_LOG(msg_log::info, log_tag) << "custom application. Enhanced_mode: " << record.EnhancedMode;
}

void log_version(const rapidjson::Value& root, std::string_view key, const std::string& path,
                 std::string_view missing, std::string_view found,
                 std::optional<std::string>& published, const std::string& log_tag) {
    std::optional<std::string> text;
    if (root.IsObject()) {
        const auto member = root.FindMember(rapidjson::StringRef(key.data(), key.size()));
        if (member != root.MemberEnd()) text = version_text(member->value);
    }
    if (!text) {
        MSG_LOG(msg_log::warning, log_tag) << " reading " << path << missing;
        return;
    }
    MSG_LOG(msg_log::info, log_tag) << " reading " << path << found << *text;
    published = std::move(text);
}

}  // namespace

code_verdict check_code(const member_lookup& member) {
    code_verdict verdict;
    app_code_info_t record{};
    record.FEC = custom_fec;
    for (const auto& field : code_fields) {
        const auto value = member(field.key);
        if (field.key == enhanced_mode_key && value.kind == json_member::type::absent) {
            verdict.enhanced_mode_missing = true;
            continue;
        }
        if (!fill(field, value, record, verdict)) verdict.improper.push_back(&field);
    }
    if (verdict.improper.empty()) verdict.record = std::move(record);
    return verdict;
}

product_verdict check_product(const member_lookup& member) {
    if (member(product_name_key).kind != json_member::type::string)
        return product_verdict::not_a_product;
    if (member(product_codes_key).kind != json_member::type::array)
        return product_verdict::codes_not_array;
    return product_verdict::valid;
}

std::optional<std::string> version_text(const rapidjson::Value& value) {
    if (value.IsString()) return std::string(value.GetString(), value.GetStringLength());
    if (value.IsInt64()) return std::to_string(value.GetInt64());
    if (value.IsUint64()) return std::to_string(value.GetUint64());
    if (value.IsNumber()) return fmt::format("{}", value.GetDouble());
    return std::nullopt;
}

json_member member_of(const rapidjson::Value& value) {
    using type = json_member::type;
    if (value.IsString()) return {type::string, {value.GetString(), value.GetStringLength()}, 0};
    if (value.IsNumber()) return {type::number, {}, value.GetDouble()};
    if (value.IsArray()) return {type::array, {}, 0};
    return {type::other, {}, 0};
}

member_lookup members_of(const rapidjson::Value& object) {
    return [&object](std::string_view key) -> json_member {
        if (!object.IsObject()) return {};
        const auto it = object.FindMember(rapidjson::StringRef(key.data(), key.size()));
        if (it == object.MemberEnd()) return {};
        return member_of(it->value);
    };
}

application_file_contents application_list_file::read(const std::string& path,
                                                      const std::string& log_tag) {
    std::error_code ec;
    std::ifstream in;
    if (std::filesystem::is_regular_file(path, ec)) in.open(path, std::ios::binary);
    if (!in.is_open()) {
        MSG_LOG(msg_log::warning, log_tag) << "Did not find application.json in " << path;
        return {};
    }
    const std::string text(std::istreambuf_iterator<char>(in), {});
    return read_text(text, path, log_tag);
}

application_file_contents application_list_file::read_text(std::string_view text,
                                                           const std::string& path,
                                                           const std::string& log_tag) {
    application_file_contents contents;
    contents.exists = true;
    rapidjson::Document document;
    // A plain byte stream, as qsfp-config-check reads it: no byte-order mark is skipped.
    rapidjson::MemoryStream stream(text.data(), text.size());
    if (!qsfpd::parse_json(stream, document)) {
        MSG_LOG(msg_log::warning, log_tag) << "Failed to parse rapidjson file\n";
        return contents;
    }
    contents.parsed = true;

    log_version(document, version_key, path, ". Could not find version!",
                " version: ", contents.version, log_tag);
    log_version(document, cmis_version_key, path, ". Could not find cmis version!",
                " cmis version: ", contents.cmis_version, log_tag);

    // The key is appended after a blank.
    const auto expected_key = [&](std::string_view key) {
        MSG_LOG(msg_log::warning, log_tag)
            << "Application json file does not follow correct json setup. expected key " << key;
    };
    if (!document.IsObject()) {
        expected_key(table_key);
        return contents;
    }
    const auto table =
        document.FindMember(rapidjson::StringRef(table_key.data(), table_key.size()));
    if (table == document.MemberEnd() || !table->value.IsObject()) {
        expected_key(table_key);
        return contents;
    }
    const auto custom =
        table->value.FindMember(rapidjson::StringRef(custom_key.data(), custom_key.size()));
    if (custom == table->value.MemberEnd() || !custom->value.IsArray()) {
        expected_key(custom_key);
        return contents;
    }
    contents.custom = allocate_custom_map(custom->value, log_tag);
    return contents;
}

custom_app_map application_list_file::allocate_custom_map(const rapidjson::Value& custom,
                                                          const std::string& log_tag) {
    if (!custom.IsArray())
        throw std::invalid_argument(std::string(function_name) +
                                    ". Custom application does not follow correct json setup. "
                                    "Passed rapidjson::Value is not an Array");
    custom_app_map map;
    for (const auto& product : custom.GetArray()) {
        const auto members = members_of(product);
        const auto verdict = check_product(members);
        if (verdict == product_verdict::not_a_product) {
            MSG_LOG(msg_log::warning, log_tag)
                << function_name << ". Custom application does not follow correct json setup.";
            continue;
        }
        const std::string name(members(product_name_key).text);
        if (verdict == product_verdict::codes_not_array) {
            MSG_LOG(msg_log::warning, log_tag)
                << function_name
                << ". Custom application does not follow correct json setup. Invalid product "
                   "array: "
                << name;
            continue;
        }
        const auto& codes = product
                                .FindMember(rapidjson::StringRef(product_codes_key.data(),
                                                                 product_codes_key.size()))
                                ->value;
        for (const auto& element : codes.GetArray()) {
            auto code = check_code(members_of(element));
            for (const auto* field : code.improper) {
                MSG_LOG(msg_log::warning, log_tag)
                    << function_name
                    << ". Application json file does not follow correct json setup. Improper "
                       "key: "
                    << field->key << (code.code ? ", for Id: " + code.id : std::string());
            }
            if (code.enhanced_mode_missing && code.code)
                MSG_LOG(msg_log::warning, log_tag)
                    << function_name
                    << ". Application code does not have Enhanced mode parameter. key: "
                    << enhanced_mode_key << ", for Id: " << code.id;
            if (!code.record) continue;
            auto& product_codes = map[name];
            if (product_codes.contains(*code.code)) continue;
            log_code(*code.record, *code.code, log_tag);
            product_codes.emplace(*code.code, std::move(*code.record));
        }
    }
    return map;
}

}  // namespace qsfpd::cmis
