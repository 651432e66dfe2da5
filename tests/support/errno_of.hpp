#pragma once

#include <functional>
#include <stdexcept>
#include <string>
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

// The message an action fails with (an `Error`), or "accepted" when it succeeds.
template <class Error = std::runtime_error>
std::string message_of(const std::function<void()>& action) {
    try {
        action();
    } catch (const Error& e) {
        return e.what();
    }
    return "accepted";
}

}  // namespace qsfpd::test
