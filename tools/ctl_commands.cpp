#include "ctl_commands.hpp"

#include <optional>
#include <vector>

#include "clock_text.hpp"
#include "column_table.hpp"
#include "ctl_status.hpp"
#include "dh_json.hpp"
#include "json_text.hpp"

namespace qsfpctl {
namespace {

// The client reports a refused or broken connection with this code; it means the daemon is
// gone, so the command stops instead of trying the next path.
constexpr int connection_failure = -111;
constexpr int not_supported = -95;

bool is_connection_failure(const dh_error& error) {
    return error.code() == connection_failure;
}

// One node's read: a value, an error, or the note that its kind offers no read.
struct read_outcome {
    std::string path;
    std::string type;
    std::optional<rapidjson::Document> value;
    std::optional<dh_error> error;
    bool readable = true;
};

read_outcome read_node(device_handler_client& client, std::string path, std::string type = {}) {
    read_outcome outcome{std::move(path), std::move(type), std::nullopt, std::nullopt, true};
    try {
        outcome.value = client.get(outcome.path);
    } catch (const dh_error& e) {
        if (is_connection_failure(e)) throw;
        outcome.error = e;
    }
    return outcome;
}

rapidjson::Value string_value(const std::string& text,
                              rapidjson::Document::AllocatorType& allocator) {
    return rapidjson::Value(text.c_str(), static_cast<rapidjson::SizeType>(text.size()), allocator);
}

rapidjson::Value error_object(const dh_error& error,
                              rapidjson::Document::AllocatorType& allocator) {
    rapidjson::Value object(rapidjson::kObjectType);
    object.AddMember("code", error.code(), allocator);
    object.AddMember("message", string_value(error.text(), allocator), allocator);
    return object;
}

// {"path":…, ["type":…,] "value":… | "error":{"code","message"}}: one entry of --json output
// for several nodes, so a failed read is told apart from a value that happens to be an object.
rapidjson::Value outcome_object(const read_outcome& outcome, bool with_type,
                                rapidjson::Document::AllocatorType& allocator) {
    rapidjson::Value object(rapidjson::kObjectType);
    object.AddMember("path", string_value(outcome.path, allocator), allocator);
    if (with_type) object.AddMember("type", string_value(outcome.type, allocator), allocator);
    if (outcome.value)
        object.AddMember("value", rapidjson::Value(*outcome.value, allocator), allocator);
    else if (outcome.error && outcome.readable)
        object.AddMember("error", error_object(*outcome.error, allocator), allocator);
    return object;
}

std::string error_mark(const dh_error& error) {
    return "<error " + std::to_string(error.code()) + ": " + error.text() + ">";
}

}  // namespace

ctl_commands::ctl_commands(device_handler_client& client, const ctl_options& options,
                           std::ostream& out, std::ostream& err, const watch_controls& controls)
    : client_(client), options_(options), out_(out), err_(err), controls_(controls) {}

int ctl_commands::execute() {
    try {
        const auto& command = options_.command;
        if (command == "get") return get();
        if (command == "set") return set();
        if (command == "run") return run();
        if (command == "info") return info();
        if (command == "ls") return ls();
        if (command == "tree") return tree();
        if (command == "watch") return watch();
        err_ << "qsfpctl: unknown command '" << command << "'\n";
        return status::usage;
    } catch (const dh_error& e) {
        return report({}, e);
    }
}

int ctl_commands::report(std::string_view subject, const dh_error& error) {
    if (is_connection_failure(error)) {
        err_ << "qsfpctl: " << error.text() << " (is qsfpd running?)\n";
        return status::unreachable;
    }
    err_ << "qsfpctl: ";
    if (!subject.empty()) err_ << subject << ": ";
    err_ << error.text() << " (error " << error.code() << ")\n";
    return status::failed;
}

int ctl_commands::get() {
    const auto& paths = options_.arguments;
    if (paths.size() == 1) {
        try {
            const auto value = client_.get(paths.front());
            out_ << compact_json(value) << '\n';
            return status::ok;
        } catch (const dh_error& e) {
            return report(paths.front(), e);
        }
    }
    std::vector<read_outcome> outcomes;
    for (const auto& path : paths)
        outcomes.push_back(read_node(client_, path));
    int result = status::ok;
    rapidjson::Document json(rapidjson::kArrayType);
    for (const auto& outcome : outcomes) {
        if (outcome.error) result = report(outcome.path, *outcome.error);
        if (options_.json)
            json.PushBack(outcome_object(outcome, false, json.GetAllocator()), json.GetAllocator());
        else if (outcome.value)
            out_ << outcome.path << " = " << compact_json(*outcome.value) << '\n';
    }
    if (options_.json) out_ << compact_json(json) << '\n';
    return result;
}

int ctl_commands::set() {
    const auto& path = options_.arguments[0];
    try {
        const auto result = client_.set(path, parse_cli_value(options_.arguments[1]));
        // Quiet on success, as a write usually is; --json shows the daemon's answer.
        if (options_.json) out_ << compact_json(result) << '\n';
        return status::ok;
    } catch (const dh_error& e) {
        return report(path, e);
    }
}

int ctl_commands::run() {
    const auto& path = options_.arguments[0];
    const rapidjson::Document argument = options_.arguments.size() > 1
                                             ? parse_cli_value(options_.arguments[1])
                                             : rapidjson::Document();
    try {
        const auto result = client_.run(path, argument);
        out_ << compact_json(result) << '\n';
        return status::ok;
    } catch (const dh_error& e) {
        return report(path, e);
    }
}

int ctl_commands::info() {
    const auto& path = options_.arguments[0];
    try {
        const auto result = client_.info(path);
        out_ << (options_.json ? compact_json(result) : pretty_json(result)) << '\n';
        return status::ok;
    } catch (const dh_error& e) {
        return report(path, e);
    }
}

namespace {
struct listed_node {
    std::string path;
    std::string type;
};

std::vector<listed_node> listed_nodes(const rapidjson::Value& listing) {
    std::vector<listed_node> nodes;
    if (!listing.IsArray()) throw dh_error(-5, "Unexpected answer to 'list'");
    for (const auto& entry : listing.GetArray()) {
        if (!entry.IsObject()) continue;
        auto path = entry.FindMember("path");
        auto type = entry.FindMember("type");
        if (path == entry.MemberEnd() || !path->value.IsString()) continue;
        nodes.push_back(
            {path->value.GetString(),
             type != entry.MemberEnd() && type->value.IsString() ? type->value.GetString() : ""});
    }
    return nodes;
}
}  // namespace

int ctl_commands::ls() {
    const std::string prefix = options_.arguments.empty() ? std::string() : options_.arguments[0];
    const auto listing = client_.list(prefix);
    const auto nodes = listed_nodes(listing);
    if (nodes.empty() && !prefix.empty()) {
        // An empty answer cannot tell a typo from an empty subtree; a person wants to know.
        err_ << "qsfpctl: no node at or below '" << prefix << "'\n";
        return status::failed;
    }
    if (options_.json) {
        out_ << compact_json(listing) << '\n';
        return status::ok;
    }
    column_table table;
    for (const auto& node : nodes)
        table.add_row(node.path, node.type);
    table.print(out_);
    return status::ok;
}

int ctl_commands::tree() {
    const std::string prefix = options_.arguments.empty() ? std::string() : options_.arguments[0];
    const auto nodes = listed_nodes(client_.list(prefix));
    if (nodes.empty() && !prefix.empty()) {
        err_ << "qsfpctl: no node at or below '" << prefix << "'\n";
        return status::failed;
    }
    std::size_t failures = 0;
    column_table table;
    rapidjson::Document json(rapidjson::kArrayType);
    for (const auto& node : nodes) {
        auto outcome = read_node(client_, node.path, node.type);
        // The daemon refuses reads of kinds that have no value (commands) with -95: those are
        // listed as such, not counted as failures.
        if (outcome.error && outcome.error->code() == not_supported) outcome.readable = false;
        if (outcome.error && outcome.readable) ++failures;
        if (options_.json) {
            json.PushBack(outcome_object(outcome, true, json.GetAllocator()), json.GetAllocator());
        } else if (outcome.value) {
            table.add_row(outcome.path, compact_json(*outcome.value));
        } else if (!outcome.readable) {
            table.add_row(outcome.path, "<not readable: " + outcome.type + ">");
        } else {
            table.add_row(outcome.path, error_mark(*outcome.error));
        }
    }
    if (options_.json)
        out_ << compact_json(json) << '\n';
    else
        table.print(out_);
    if (failures == 0) return status::ok;
    err_ << "qsfpctl: " << failures << " of " << nodes.size() << " nodes could not be read\n";
    return status::failed;
}

std::chrono::system_clock::time_point ctl_commands::now() const {
    return controls_.now ? controls_.now() : std::chrono::system_clock::now();
}

void ctl_commands::print_watch_line(const std::string& path, const std::string& value_text) {
    if (options_.json) {
        std::string line = R"({"time":)";
        dh::append_json_string(line, utc_iso_time(now()));
        line += R"(,"path":)";
        dh::append_json_string(line, path);
        line += R"(,"value":)";
        line += value_text;
        line += '}';
        out_ << line << std::endl;
    } else {
        out_ << local_clock_time(now()) << ' ' << path << " = " << value_text << std::endl;
    }
}

int ctl_commands::watch() {
    std::vector<std::pair<std::string, std::string>> current;
    for (const auto& path : options_.arguments) {
        try {
            current.emplace_back(path, compact_json(client_.subscribe(path)));
        } catch (const dh_error& e) {
            return report(path, e);
        }
    }
    if (controls_.on_subscribed) controls_.on_subscribed();
    for (const auto& [path, value] : current)
        print_watch_line(path, value);

    std::size_t events = 0;
    auto last_event = std::chrono::steady_clock::now();
    while (!controls_.max_events || events < *controls_.max_events) {
        if (controls_.stop && controls_.stop->load()) break;
        if (!out_) return status::failed;  // the reader went away (a closed pipe)
        auto notification = client_.next_notification(controls_.poll_interval);
        if (!notification) {
            if (!client_.is_connected()) {
                err_ << "qsfpctl: connection to " << client_.target() << " lost\n";
                return status::unreachable;
            }
            if (controls_.idle_limit &&
                std::chrono::steady_clock::now() - last_event > *controls_.idle_limit) {
                err_ << "qsfpctl: no change within " << controls_.idle_limit->count() << " ms\n";
                return status::failed;
            }
            continue;
        }
        print_watch_line(notification->path, notification->value);
        ++events;
        last_event = std::chrono::steady_clock::now();
    }
    return out_ ? status::ok : status::failed;
}

}  // namespace qsfpctl
