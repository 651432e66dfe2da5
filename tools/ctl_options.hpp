#pragma once

#include <chrono>
#include <string>
#include <variant>
#include <vector>

namespace qsfpctl {

// What the command line asks for. Options end at the command word, so that arguments such as
// "-5" reach `set` and `run` as values instead of being taken for options.
struct ctl_options {
    std::string host = "127.0.0.1";
    unsigned short port = 2500;
    std::string socket_path;  // non-empty: the daemon's Unix socket instead of TCP
    // Long enough for a slow register read, which the daemon itself gives up after 5 s.
    std::chrono::milliseconds timeout{6000};
    bool json = false;
    bool help = false;
    std::string command;
    std::vector<std::string> arguments;
};

struct usage_error {
    std::string message;
};

// `args` are the words after the program name.
std::variant<ctl_options, usage_error> parse_ctl_options(const std::vector<std::string>& args);

std::string usage_text();

}  // namespace qsfpctl
