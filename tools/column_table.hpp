#pragma once

#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace qsfpctl {

// Two columns, the first padded to its widest entry, for `ls` and `tree`.
class column_table {
  public:
    void add_row(std::string left, std::string right);
    bool empty() const { return rows_.empty(); }
    void print(std::ostream& out) const;

  private:
    static constexpr std::size_t gap = 2;
    std::vector<std::pair<std::string, std::string>> rows_;
};

}  // namespace qsfpctl
