#pragma once

#include <functional>
#include <system_error>

namespace qsfpd::test {

// The errno an action fails with (std::system_error), or 0 when it succeeds.
inline int error_of(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::system_error& e) {
        return e.code().value();
    }
    return 0;
}

}  // namespace qsfpd::test
