#include "diagnostics.hpp"

#include <algorithm>

namespace config_check {

void diagnostics::error(std::size_t offset, std::string expected, std::string found) {
    list_.push_back({severity::error, offset, std::move(expected), std::move(found)});
}

void diagnostics::warning(std::size_t offset, std::string expected, std::string found) {
    list_.push_back({severity::warning, offset, std::move(expected), std::move(found)});
}

void diagnostics::syntax_error(std::size_t offset, std::string expected, std::string found) {
    error(offset, std::move(expected), std::move(found));
    syntax_failed_ = true;
}

bool diagnostics::has_errors() const {
    return std::ranges::any_of(list_, [](const auto& d) { return d.level == severity::error; });
}

bool diagnostics::has_warnings() const {
    return std::ranges::any_of(list_, [](const auto& d) { return d.level == severity::warning; });
}

std::vector<diagnostic> diagnostics::in_file_order() const {
    auto sorted = list_;
    std::ranges::stable_sort(sorted, {}, &diagnostic::offset);
    return sorted;
}

void diagnostics::print(std::ostream& out, std::string_view file_name,
                        const line_index& lines) const {
    for (const auto& d : in_file_order()) {
        const auto position = lines.at(d.offset);
        out << file_name << ':' << position.line << ':' << position.column << ": "
            << (d.level == severity::warning ? "warning: " : "") << "expected " << d.expected
            << ", found " << d.found << '\n';
    }
}

}  // namespace config_check
