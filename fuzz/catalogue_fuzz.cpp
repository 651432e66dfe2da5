// The catalogue checker against the daemon's loader: on any text the checker passes without an
// error, the loader must not stop the process, and a text the checker finds unparsable leaves
// the daemon with an empty catalogue. On the way, every position the checker would report must
// point at the value it names.
#include <boost/log/core.hpp>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "json_outline.hpp"
#include "run_config_check.hpp"
#include "transceiver_catalogue.hpp"

namespace {

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "fuzz check failed: %s\n", what);
    std::abort();
}

// The byte at a value's start and end is the one its type begins and ends with.
void check_positions(const config_check::json_outline& outline) {
    using config_check::json_type;
    const std::string_view text = outline.text();
    std::vector<const config_check::json_node*> pending{&outline.root()};
    while (!pending.empty()) {
        const auto* node = pending.back();
        pending.pop_back();
        if (node->begin >= node->end || node->end > text.size()) fail("a value's span is wrong");
        const char first = text[node->begin];
        const char last = text[node->end - 1];
        bool ok = true;
        switch (node->type) {
            case json_type::null:
                ok = text.substr(node->begin, node->end - node->begin) == "null";
                break;
            case json_type::boolean:
                ok = text.substr(node->begin, node->end - node->begin) ==
                     (node->boolean ? "true" : "false");
                break;
            case json_type::number:
                ok = (first == '-' || (first >= '0' && first <= '9')) && last >= '0' && last <= '9';
                break;
            case json_type::string:
                ok = first == '"' && last == '"' && node->end - node->begin >= 2;
                break;
            case json_type::array:
                ok = first == '[' && last == ']';
                break;
            case json_type::object:
                ok = first == '{' && last == '}';
                break;
        }
        if (!ok) fail("a value's position does not point at it");
        for (const auto* child : outline.children(*node)) {
            if (node->type == json_type::object &&
                (child->key_begin >= child->begin || text[child->key_begin] != '"'))
                fail("a member name's position does not point at it");
            pending.push_back(child);
        }
    }
}

void probe(const qsfpd::probe_map& map, const std::string& vendor, const std::string& part) {
    try {
        const auto it = qsfpd::find_in_map(map, vendor, part);
        const auto& pattern = it->first.part_number;
        if (it->first.vendor != vendor || pattern.size() != part.size())
            fail("find_in_map returned an entry that does not match");
        for (std::size_t i = 0; i < part.size(); ++i)
            if (pattern[i] != '*' && pattern[i] != part[i])
                fail("find_in_map returned an entry that does not match");
    } catch (const std::out_of_range&) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The loader logs a line for every unparsable input; formatting it is not what is tested.
    boost::log::core::get()->set_logging_enabled(false);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const config_check::json_outline outline(text);
    const auto problems =
        config_check::check_outline(outline, *config_check::kind_named("qsfp-catalogue"));
    if (!outline.syntax_error()) check_positions(outline);
    if (problems.has_errors() && !problems.syntax_failed()) return 0;  // the daemon would stop

    const auto map = qsfpd::load_probe_map_from_text(
        text, [](qsfpd::catalogue_list) { return qsfpd::probe_factory([](auto&&...) {}); },
        "/dev/qsfp");
    if (problems.syntax_failed() && !map.empty()) fail("an unparsable text gave entries");

    for (const auto& [id, factory] : map) {
        // A pattern matches itself, '*' included: some entry must be found for it.
        try {
            qsfpd::find_in_map(map, id.vendor, id.part_number);
        } catch (const std::out_of_range&) {
            fail("an entry's own vendor and pattern found nothing");
        }
        probe(map, id.vendor, std::string(id.part_number.size(), 'X'));
    }
    probe(map, "DELL", "3MFXG");
    probe(map, "FS", "Q28-PC01");
    probe(map, "", "");
    return 0;
}
