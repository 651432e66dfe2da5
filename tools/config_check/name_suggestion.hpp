#pragma once

#include <optional>
#include <string_view>
#include <vector>

namespace config_check {

// The known name that `name` most likely misspells: the nearest by edit distance, ignoring case,
// when it is near enough to be a slip of the keyboard. Nothing for a name unlike all of them.
std::optional<std::string_view> closest_name(std::string_view name,
                                             const std::vector<std::string_view>& known);

}  // namespace config_check
