#pragma once

namespace qsfpctl::status {

// Exit statuses, distinct so that scripts can tell a refused request from a daemon that is not
// there without parsing stderr.
inline constexpr int ok = 0;
inline constexpr int failed = 1;       // the daemon refused or could not answer a request
inline constexpr int usage = 2;        // the command line is wrong
inline constexpr int unreachable = 3;  // no daemon at the address, or the connection broke

}  // namespace qsfpctl::status
