#include "name_suggestion.hpp"

#include <algorithm>
#include <cctype>
#include <numeric>

namespace config_check {
namespace {

std::size_t edit_distance(std::string_view a, std::string_view b) {
    const auto lower = [](char c) { return std::tolower(static_cast<unsigned char>(c)); };
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t substitution =
                diagonal + (lower(a[i - 1]) == lower(b[j - 1]) ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, substitution});
        }
    }
    return row[b.size()];
}

}  // namespace

std::optional<std::string_view> closest_name(std::string_view name,
                                             const std::vector<std::string_view>& known) {
    // A quarter of the name, 1 to 3 edits: "isFex" finds "isFec", "comment" finds nothing.
    const std::size_t limit = std::clamp<std::size_t>(name.size() / 4, 1, 3);
    std::optional<std::string_view> best;
    std::size_t best_distance = limit + 1;
    for (const auto candidate : known) {
        const std::size_t distance = edit_distance(name, candidate);
        if (distance < best_distance) {
            best = candidate;
            best_distance = distance;
        }
    }
    return best;
}

}  // namespace config_check
