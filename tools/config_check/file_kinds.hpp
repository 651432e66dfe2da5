#pragma once

#include <span>
#include <string_view>

#include "diagnostics.hpp"
#include "json_outline.hpp"

namespace config_check {

// One kind of file the daemon reads. A new kind is one row in the table and one checker.
struct file_kind {
    std::string_view name;         // the value of --kind
    std::string_view daemon_path;  // where the daemon reads it; its file name names the kind
    std::string_view summary;
    bool (*recognises)(const json_outline&);  // by content, for a file named otherwise
    void (*check)(const json_outline&, diagnostics&);
};

std::span<const file_kind> file_kinds();
const file_kind* kind_named(std::string_view name);
// The kind whose daemon file has the name of `path`, else the first that recognises the content.
const file_kind* kind_of(std::string_view path, const json_outline& outline);

}  // namespace config_check
