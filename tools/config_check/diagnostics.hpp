#pragma once

#include <cstddef>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "line_index.hpp"

namespace config_check {

enum class severity {
    error,    // the daemon stops on it, or ignores the whole file
    warning,  // the daemon reads on, but not what the author meant
};

struct diagnostic {
    severity level;
    std::size_t offset;  // byte offset in the file
    std::string expected;
    std::string found;
};

// The problems found in one file.
class diagnostics {
  public:
    void error(std::size_t offset, std::string expected, std::string found);
    void warning(std::size_t offset, std::string expected, std::string found);
    // The file is no JSON the daemon accepts: it reads nothing from it.
    void syntax_error(std::size_t offset, std::string expected, std::string found);

    bool has_errors() const;
    bool has_warnings() const;
    bool syntax_failed() const { return syntax_failed_; }
    // In the order of the file; problems at one place in the order they were found.
    std::vector<diagnostic> in_file_order() const;

    // One line each: "FILE:LINE:COLUMN: expected X, found Y", warnings with "warning: " before
    // "expected".
    void print(std::ostream& out, std::string_view file_name, const line_index& lines) const;

  private:
    std::vector<diagnostic> list_;
    bool syntax_failed_ = false;
};

}  // namespace config_check
