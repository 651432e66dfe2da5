#pragma once

// The operator's application list file: per module part number, media interface codes that the
// module advertises but the built-in tables do not know (vendor-specific codes). Optional; no
// error in it ever stops a handler: each is logged and the offending part skipped.

#include <array>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <rapidjson/document.h>

#include "app_code_tables.hpp"

namespace qsfpd::cmis {

// Part number, then media code.
using custom_app_map = std::unordered_map<std::string, app_code_map>;

struct application_file_contents {
    bool exists = false;                 // the file was there (the handler's alarm is its negation)
    bool parsed = false;                 // it was one well-formed JSON text
    std::optional<std::string> version;  // "version", as text whether string or number
    std::optional<std::string> cmis_version;  // "CMISVer", likewise
    custom_app_map custom;                    // the accepted rows of "applicationTable"/"Custom"
};

// The keys that lead to the tables.
inline constexpr std::string_view version_key = "version";
inline constexpr std::string_view cmis_version_key = "CMISVer";
inline constexpr std::string_view table_key = "applicationTable";
inline constexpr std::string_view custom_key = "Custom";
inline constexpr std::string_view product_name_key = "ProductName";
inline constexpr std::string_view product_codes_key = "ProductCodes";

// One member of an object as the rules see it. The reader and qsfp-config-check each describe
// their own parse this way and then apply the same rules below.
struct json_member {
    enum class type { absent, string, number, array, other };
    type kind = type::absent;
    std::string_view text;  // a string's value
    double number = 0;      // a number's value
};
// The member named `key` of one object (the first, when the name is repeated); absent for
// anything that is not an object.
using member_lookup = std::function<json_member(std::string_view key)>;

// What a code element's key fills in the record.
enum class code_value {
    id,     // IdHex: hex digits, at most FF (media codes are one byte)
    text,   // any string
    whole,  // a number holding a whole value 0..65535
    real,   // a number a float holds, not negative
};

struct code_field {
    std::string_view key;
    code_value type;
    std::string app_code_info_t::*text = nullptr;
    std::uint16_t app_code_info_t::*whole = nullptr;
    float app_code_info_t::*real = nullptr;
};

// In the order they are checked and their faults logged. "Enhanced_mode" is last: left out, the
// code is kept as not enhanced (its own log line); only a mistyped one drops the code.
inline constexpr std::array<code_field, 9> code_fields{{
    {"IdHex", code_value::id, &app_code_info_t::IdHex},
    {"Interface", code_value::text, &app_code_info_t::Interface},
    {"bitrate", code_value::whole, nullptr, &app_code_info_t::Bitrate},
    {"bitrate_org", code_value::real, nullptr, nullptr, &app_code_info_t::ApplicationBitRate},
    {"LaneCount", code_value::whole, nullptr, &app_code_info_t::LaneCount},
    {"LaneSignallingRate", code_value::real, nullptr, nullptr, &app_code_info_t::LaneSignalRate},
    {"Modulation", code_value::text, &app_code_info_t::Modulation},
    {"b/UI", code_value::real, nullptr, nullptr, &app_code_info_t::BitsPerUnitInterval},
    {"Enhanced_mode", code_value::text, &app_code_info_t::EnhancedMode},
}};
inline constexpr std::string_view enhanced_mode_key = "Enhanced_mode";
// The file has no FEC key.
inline constexpr std::string_view custom_fec = "n/a";

// The verdict on one element of "ProductCodes".
struct code_verdict {
    std::optional<unsigned> code;             // the media code, once IdHex is proper
    std::string id;                           // IdHex normalised: upper case, no leading zero
    std::vector<const code_field*> improper;  // missing or mistyped keys, in table order
    bool enhanced_mode_missing = false;       // kept all the same, as not enhanced
    std::optional<app_code_info_t> record;    // when accepted
};
code_verdict check_code(const member_lookup& member);

// The verdict on one element of "Custom".
enum class product_verdict {
    valid,
    not_a_product,    // not an object with a string "ProductName"
    codes_not_array,  // "ProductCodes" missing or not an array
};
product_verdict check_product(const member_lookup& member);

// "version" or "CMISVer" as published: a string as it is, a number as its shortest text; none
// for any other type.
std::optional<std::string> version_text(const rapidjson::Value& value);

// `value` seen through member_lookup.
json_member member_of(const rapidjson::Value& value);
member_lookup members_of(const rapidjson::Value& object);

class application_list_file {
  public:
    // Where the operator keeps it (looked up under $QSFPD_ROOT by the caller).
    static constexpr std::string_view default_path = "/var/persistent/etc/application_list.json";

    // Reads and checks the file at `path`, logging every finding under `log_tag`.
    static application_file_contents read(const std::string& path, const std::string& log_tag);
    // The same for a text already in memory, parsed exactly as the file would be (`path` only
    // names it in the log).
    static application_file_contents read_text(std::string_view text, const std::string& path,
                                               const std::string& log_tag);

    // The rows of one "Custom" array. Throws std::invalid_argument ("allocate_custom_map. Custom
    // application does not follow correct json setup. Passed rapidjson::Value is not an Array")
    // when `custom` is not an array; every other fault is logged and its element skipped.
    static custom_app_map allocate_custom_map(const rapidjson::Value& custom,
                                              const std::string& log_tag);
};

}  // namespace qsfpd::cmis
