#include "column_table.hpp"

#include <algorithm>

namespace qsfpctl {

void column_table::add_row(std::string left, std::string right) {
    rows_.emplace_back(std::move(left), std::move(right));
}

void column_table::print(std::ostream& out) const {
    std::size_t width = 0;
    for (const auto& row : rows_)
        width = std::max(width, row.first.size());
    for (const auto& [left, right] : rows_)
        out << left << std::string(width - left.size() + gap, ' ') << right << '\n';
}

}  // namespace qsfpctl
