#include "run_config_check.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>

namespace config_check {
namespace {

constexpr const char* program = "qsfp-config-check";

struct options {
    bool help = false;
    bool strict = false;
    const file_kind* kind = nullptr;
    std::vector<std::string> files;
};

std::string kind_names() {
    std::string names;
    for (const auto& kind : file_kinds())
        names += (names.empty() ? "" : ", ") + std::string(kind.name);
    return names;
}

void print_help(std::ostream& out) {
    out << "Usage: " << program << " [--strict] [--kind KIND] FILE...\n"
        << "Checks each FILE the way qsfpd reads it and reports every problem, one per line:\n"
        << "  FILE:LINE:COLUMN: expected X, found Y           an error: qsfpd would stop on\n"
        << "                                                  it, or ignore the whole file\n"
        << "  FILE:LINE:COLUMN: warning: expected X, found Y  qsfpd reads on, but not what\n"
        << "                                                  was meant\n"
        << "Options:\n"
        << "  -k, --kind KIND  read every FILE as KIND; without it, a FILE named like the\n"
        << "                   file qsfpd reads is of that kind, another is told by content\n"
        << "  -s, --strict     warnings fail the check too\n"
        << "  -h, --help       print this text\n"
        << "Kinds:\n";
    for (const auto& kind : file_kinds())
        out << "  " << kind.name << "  " << kind.daemon_path << ": " << kind.summary << '\n';
    out << "Exit status: 0 every FILE is good (warnings allowed without --strict), 1 some FILE\n"
        << "has a problem, 2 a usage error or a FILE that cannot be read or told apart.\n";
}

// Fills `parsed`, or returns what is wrong with the command line.
std::optional<std::string> parse_options(const std::vector<std::string>& args, options& parsed) {
    bool only_files = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& word = args[i];
        if (only_files || word.size() < 2 || word.front() != '-') {
            parsed.files.push_back(word);
        } else if (word == "--") {
            only_files = true;
        } else if (word == "-h" || word == "--help") {
            parsed.help = true;
        } else if (word == "-s" || word == "--strict") {
            parsed.strict = true;
        } else if (word == "-k" || word == "--kind" || word.starts_with("--kind=")) {
            std::string name;
            if (word.starts_with("--kind="))
                name = word.substr(7);
            else if (i + 1 < args.size())
                name = args[++i];
            else
                return "option " + word + " needs a kind (" + kind_names() + ")";
            parsed.kind = kind_named(name);
            if (!parsed.kind) return "unknown kind '" + name + "' (known: " + kind_names() + ")";
        } else {
            return "unknown option " + word;
        }
    }
    if (!parsed.help && parsed.files.empty()) return "no FILE to check";
    return std::nullopt;
}

std::optional<std::string> read_file(const std::string& path, std::string& text) {
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec)) return "it is a directory";
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::strerror(errno);
    text.assign(std::istreambuf_iterator<char>(in), {});
    if (in.bad()) return "read error";
    return std::nullopt;
}

}  // namespace

diagnostics check_outline(const json_outline& outline, const file_kind& kind) {
    diagnostics problems;
    if (const auto& error = outline.syntax_error())
        problems.syntax_error(error->offset, error->expected, error->found);
    else
        kind.check(outline, problems);
    return problems;
}

int run_config_check(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    options parsed;
    if (const auto usage = parse_options(args, parsed)) {
        err << program << ": " << *usage << "\nTry '" << program << " --help'.\n";
        return 2;
    }
    if (parsed.help) {
        print_help(out);
        return 0;
    }
    int status = 0;
    for (const auto& path : parsed.files) {
        std::string text;
        if (const auto failure = read_file(path, text)) {
            err << program << ": cannot read " << path << ": " << *failure << '\n';
            status = 2;
            continue;
        }
        const json_outline outline(std::move(text));
        const file_kind* kind = parsed.kind;
        // A text that does not parse is refused whatever its kind.
        if (!kind && !outline.syntax_error()) kind = kind_of(path, outline);
        if (!kind && !outline.syntax_error()) {
            err << program << ": cannot tell what kind of file " << path
                << " is; name it with --kind (" << kind_names() << ")\n";
            status = 2;
            continue;
        }
        const auto problems = check_outline(outline, kind ? *kind : file_kinds().front());
        problems.print(out, path, outline.lines());
        if (problems.has_errors() || (parsed.strict && problems.has_warnings()))
            status = std::max(status, 1);
    }
    return status;
}

}  // namespace config_check
