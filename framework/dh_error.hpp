#pragma once

#include <stdexcept>
#include <string>

// The error every node operation reports to clients: a negative errno-style code and a fixed text.
class dh_error : public std::exception {
  public:
    dh_error(int code, std::string text) : code_(code), text_(std::move(text)) {}

    int code() const noexcept { return code_; }
    const std::string& text() const noexcept { return text_; }
    const char* what() const noexcept override { return text_.c_str(); }

  private:
    int code_;
    std::string text_;
};

namespace dh::errc {
inline constexpr int no_such_node = -2;          // ENOENT
inline constexpr int io_error = -5;              // EIO
inline constexpr int exists = -17;               // EEXIST
inline constexpr int removed = -19;              // ENODEV: the node's owner is gone
inline constexpr int invalid = -22;              // EINVAL: refused configuration or command
inline constexpr int no_data = -61;              // ENODATA: value not set yet
inline constexpr int timed_out = -110;           // ETIMEDOUT
inline constexpr int connection_refused = -111;  // ECONNREFUSED: the other server is not there
inline constexpr int not_supported = -95;        // EOPNOTSUPP: the node's kind lacks the operation
}  // namespace dh::errc
