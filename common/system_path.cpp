#include "system_path.hpp"

#include <cstdlib>

namespace qsfpd {

std::string system_path(std::string_view absolute_path) {
    const char* root = std::getenv("QSFPD_ROOT");
    if (root == nullptr || *root == '\0') return std::string(absolute_path);
    std::string result(root);
    while (!result.empty() && result.back() == '/')
        result.pop_back();
    if (!absolute_path.empty() && absolute_path.front() != '/') result += '/';
    result += absolute_path;
    return result;
}

}  // namespace qsfpd
