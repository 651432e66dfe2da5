#include "file_kinds.hpp"

#include <array>
#include <filesystem>

#include "application_list_checker.hpp"
#include "qsfp_catalogue_checker.hpp"

namespace config_check {
namespace {

constexpr std::array kinds{
    file_kind{"qsfp-catalogue", "/etc/transceiver_qsfp.json",
              "the QSFP transceiver catalogue: handler lists by vendor and part number",
              &qsfp_catalogue_checker::recognises, &qsfp_catalogue_checker::check},
    file_kind{"application-list", "/var/persistent/etc/application_list.json",
              "the operator's custom CMIS media codes by module part number",
              &application_list_checker::recognises, &application_list_checker::check},
};

}  // namespace

std::span<const file_kind> file_kinds() {
    return kinds;
}

const file_kind* kind_named(std::string_view name) {
    for (const auto& kind : kinds)
        if (kind.name == name) return &kind;
    return nullptr;
}

const file_kind* kind_of(std::string_view path, const json_outline& outline) {
    const auto file_name = std::filesystem::path(path).filename();
    for (const auto& kind : kinds)
        if (std::filesystem::path(kind.daemon_path).filename() == file_name) return &kind;
    for (const auto& kind : kinds)
        if (kind.recognises(outline)) return &kind;
    return nullptr;
}

}  // namespace config_check
