#include "ctl_options.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <string_view>

namespace qsfpctl {
namespace {

struct command_arity {
    std::string_view name;
    std::size_t min;
    std::size_t max;
};

constexpr std::size_t unbounded = static_cast<std::size_t>(-1);

constexpr std::array<command_arity, 8> commands{{
    {"get", 1, unbounded},
    {"set", 2, 2},
    {"run", 1, 2},
    {"info", 1, 1},
    {"ls", 0, 1},
    {"tree", 0, 1},
    {"watch", 1, unbounded},
    {"help", 0, 0},
}};

template <class T>
std::optional<T> parse_number(std::string_view text, T min, T max) {
    T value{};
    const auto* end = text.data() + text.size();
    auto [ptr, ec] = std::from_chars(text.data(), end, value);
    if (ec != std::errc() || ptr != end || value < min || value > max) return std::nullopt;
    return value;
}

// Splits "-pVALUE", "--port=VALUE" and "-p VALUE" alike; `next` is advanced past a value taken
// from the following word.
std::optional<std::string> option_value(const std::vector<std::string>& args, std::size_t& next,
                                        std::string_view word, std::string_view name) {
    if (word.size() > name.size()) {
        const auto rest = word.substr(name.size());
        if (name.starts_with("--"))
            return rest.front() == '=' ? std::optional(std::string(rest.substr(1))) : std::nullopt;
        return std::string(rest);
    }
    if (next >= args.size()) return std::nullopt;
    return args[next++];
}

bool is_option(std::string_view word, std::string_view short_name, std::string_view long_name) {
    if (word == long_name || word.starts_with(std::string(long_name) + "=")) return true;
    return word.starts_with(short_name);
}

}  // namespace

std::variant<ctl_options, usage_error> parse_ctl_options(const std::vector<std::string>& args) {
    ctl_options options;
    bool port_given = false;
    bool host_given = false;
    std::size_t next = 0;
    while (next < args.size()) {
        const std::string_view word = args[next];
        if (word.empty() || word.front() != '-' || word == "-") break;
        ++next;
        if (word == "--") break;
        if (word == "--json") {
            options.json = true;
        } else if (word == "-h" || word == "--help") {
            options.help = true;
        } else if (is_option(word, "-H", "--host")) {
            const auto value =
                option_value(args, next, word, word.starts_with("--") ? "--host" : "-H");
            if (!value || value->empty()) return usage_error{"option -H needs a host"};
            options.host = *value;
            host_given = true;
        } else if (is_option(word, "-p", "--port")) {
            const auto value =
                option_value(args, next, word, word.starts_with("--") ? "--port" : "-p");
            if (!value) return usage_error{"option -p needs a port"};
            const auto port = parse_number<unsigned>(*value, 1, 65535);
            if (!port) return usage_error{"invalid port '" + *value + "' (1 to 65535)"};
            options.port = static_cast<unsigned short>(*port);
            port_given = true;
        } else if (is_option(word, "-s", "--socket")) {
            const auto value =
                option_value(args, next, word, word.starts_with("--") ? "--socket" : "-s");
            if (!value || value->empty()) return usage_error{"option -s needs a socket path"};
            options.socket_path = *value;
        } else if (is_option(word, "-t", "--timeout")) {
            const auto value =
                option_value(args, next, word, word.starts_with("--") ? "--timeout" : "-t");
            if (!value) return usage_error{"option -t needs milliseconds"};
            const auto ms = parse_number<long>(*value, 1, 3'600'000);
            if (!ms) return usage_error{"invalid timeout '" + *value + "' (1 to 3600000 ms)"};
            options.timeout = std::chrono::milliseconds(*ms);
        } else {
            return usage_error{"unknown option '" + std::string(word) + "'"};
        }
    }
    if (!options.socket_path.empty() && (port_given || host_given))
        return usage_error{"-s cannot be combined with -H or -p"};
    if (options.help) return options;
    if (next >= args.size()) return usage_error{"no command given"};

    options.command = args[next++];
    options.arguments.assign(args.begin() + static_cast<std::ptrdiff_t>(next), args.end());
    const auto* arity = std::find_if(commands.begin(), commands.end(), [&](const command_arity& c) {
        return c.name == options.command;
    });
    if (arity == commands.end()) return usage_error{"unknown command '" + options.command + "'"};
    const auto count = options.arguments.size();
    if (count < arity->min || count > arity->max)
        return usage_error{"wrong number of arguments for '" + options.command + "'"};
    if (options.command == "help") options.help = true;
    return options;
}

std::string usage_text() {
    return R"(Usage: qsfpctl [-H HOST] [-p PORT | -s SOCKET] [-t MS] [--json] COMMAND [ARG...]

Reads and writes the nodes of a running qsfpd.

Options (before the command):
  -H, --host HOST      daemon host (default 127.0.0.1)
  -p, --port PORT      daemon TCP port (default 2500)
  -s, --socket PATH    the daemon's Unix socket instead of TCP,
                       e.g. /tmp/device_handlers/qsfp/3
  -t, --timeout MS     wait at most MS milliseconds for each answer (default 6000)
      --json           print machine-readable JSON
  -h, --help           print this text

Commands:
  get PATH...          print the value; "PATH = VALUE" lines for several paths
  set PATH VALUE       write VALUE: JSON when it parses as JSON, else a string
  run PATH [ARG]       run a command node with ARG (parsed like VALUE; none: null)
  info PATH            describe a node
  ls [PREFIX]          list the nodes at or below PREFIX with their types
  tree [PREFIX]        print the value of every node at or below PREFIX
  watch PATH...        print the values, then every change, until Ctrl-C

Values are printed as JSON text (strings in double quotes).
Exit status: 0 success, 1 a request failed, 2 bad usage, 3 daemon not reachable.
)";
}

}  // namespace qsfpctl
