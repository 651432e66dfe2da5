#pragma once

// The operator's application list file: per module part number, media interface codes that the
// module advertises but the built-in tables do not know (vendor-specific codes). Optional; no
// error in it ever stops a handler: each is logged and the offending part skipped.

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

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

class application_list_file {
  public:
    // Where the operator keeps it (looked up under $QSFPD_ROOT by the caller).
    static constexpr std::string_view default_path = "/var/persistent/etc/application_list.json";

    // Reads and checks the file at `path`, logging every finding under `log_tag`.
    static application_file_contents read(const std::string& path, const std::string& log_tag);

    // The rows of one "Custom" array. Throws std::invalid_argument ("allocate_custom_map. Custom
    // application does not follow correct json setup. Passed rapidjson::Value is not an Array")
    // when `custom` is not an array; every other fault is logged and its element skipped.
    static custom_app_map allocate_custom_map(const rapidjson::Value& custom,
                                              const std::string& log_tag);
};

}  // namespace qsfpd::cmis
