#include "qsfp_catalogue_checker.hpp"

#include <algorithm>
#include <cctype>
#include <set>

#include "name_suggestion.hpp"

namespace config_check {
namespace {

using qsfpd::catalogue_entry_fields;
using qsfpd::catalogue_lists;
using qsfpd::catalogue_value;

template <typename Table>
std::vector<std::string_view> keys_of(const Table& table) {
    std::vector<std::string_view> keys;
    for (const auto& row : table)
        keys.push_back(row.key);
    return keys;
}

template <typename Table>
std::size_t index_of(const Table& table, std::string_view key) {
    return static_cast<std::size_t>(
        std::ranges::find_if(table, [&](const auto& row) { return row.key == key; }) -
        table.begin());
}

std::string expected_name(std::string_view name, const std::vector<std::string_view>& known,
                          std::string_view otherwise) {
    const auto near = closest_name(name, known);
    return near ? quote(*near) : std::string(otherwise);
}

}  // namespace

bool qsfp_catalogue_checker::recognises(const json_outline& outline) {
    if (outline.syntax_error() || outline.root().type != json_type::object) return false;
    return std::ranges::any_of(outline.children(outline.root()), [](const json_node* member) {
        return index_of(catalogue_lists, member->key) < catalogue_lists.size();
    });
}

void qsfp_catalogue_checker::check(const json_outline& outline, diagnostics& out) {
    qsfp_catalogue_checker(outline, out).check_root(outline.root());
}

void qsfp_catalogue_checker::check_root(const json_node& root) {
    if (root.type != json_type::object) {
        out_.error(root.begin, "an object at the top level", outline_.describe(root));
        return;
    }
    std::set<std::string> seen;
    for (const auto* member : outline_.children(root)) {
        if (!seen.insert(member->key).second) {
            out_.warning(member->key_begin, quote(member->key) + " once in this object",
                         "it again (the daemon reads only the first)");
            continue;
        }
        const std::size_t list = index_of(catalogue_lists, member->key);
        if (list == catalogue_lists.size()) {
            out_.warning(member->key_begin,
                         expected_name(member->key, keys_of(catalogue_lists), "a list name"),
                         quote(member->key) + " (the daemon ignores unknown members)");
        } else if (member->type != json_type::array) {
            out_.error(member->begin, "an array for " + quote(member->key),
                       outline_.describe(*member));
        } else {
            lists_[list] = member;
        }
    }
    // The daemon reads the lists in their fixed order, whatever the order in the file: what an
    // entry inherits or repeats depends on that order.
    for (std::size_t list = 0; list < catalogue_lists.size(); ++list)
        if (lists_[list]) check_list(catalogue_lists[list], *lists_[list]);
}

void qsfp_catalogue_checker::check_list(const qsfpd::catalogue_list_info& list,
                                        const json_node& array) {
    for (const auto* element : outline_.children(array)) {
        if (element->type != json_type::object) {
            out_.error(element->begin, "an object for each entry of " + quote(list.key),
                       outline_.describe(*element));
        } else if (const auto e = check_entry_members(*element)) {
            check_entry_meaning(list, *e);
        }
    }
}

std::optional<qsfp_catalogue_checker::entry> qsfp_catalogue_checker::check_entry_members(
    const json_node& object) {
    entry e{&object};
    std::array<bool, catalogue_entry_fields.size()> given{};
    std::set<std::string> seen;
    for (const auto* member : outline_.children(object)) {
        if (!seen.insert(member->key).second) {
            out_.warning(member->key_begin, quote(member->key) + " once in this entry",
                         "it again (the daemon reads only the first)");
            continue;
        }
        const std::size_t index = index_of(catalogue_entry_fields, member->key);
        if (index == catalogue_entry_fields.size()) {
            out_.warning(
                member->key_begin,
                expected_name(member->key, keys_of(catalogue_entry_fields), "an entry key"),
                quote(member->key) + " (the daemon ignores unknown keys)");
            continue;
        }
        given[index] = true;
        const bool text = catalogue_entry_fields[index].type == catalogue_value::text;
        if (member->type == (text ? json_type::string : json_type::boolean))
            e.fields[index] = member;
        else
            out_.error(member->begin,
                       (text ? "a string for " : "true or false for ") + quote(member->key),
                       outline_.describe(*member));
    }
    bool valid = true;
    for (std::size_t i = 0; i < catalogue_entry_fields.size(); ++i) {
        if (given[i] && !e.fields[i]) valid = false;
        if (!given[i] && catalogue_entry_fields[i].required()) {
            out_.error(object.begin,
                       "member " + quote(catalogue_entry_fields[i].key) + " (a string)",
                       "an entry without it");
            valid = false;
        }
    }
    return valid ? std::optional(e) : std::nullopt;
}

void qsfp_catalogue_checker::check_entry_meaning(const qsfpd::catalogue_list_info& list,
                                                 const entry& e) {
    const auto field = [&](std::string_view key) -> const json_node& {
        return *e.fields[index_of(catalogue_entry_fields, key)];
    };
    const auto& vendor = field("vendor");
    const auto& pattern = field("partNumber");
    check_match_text(vendor, "vendor", "a module's vendor");
    check_match_text(pattern, "part-number pattern", "a module's part number");

    for (std::size_t i = 0; i < catalogue_entry_fields.size(); ++i) {
        if (!catalogue_entry_fields[i].carries_over) continue;
        if (e.fields[i]) {
            carried_from_[i] = e.fields[i];
        } else if (carried_from_[i] && carried_from_[i]->boolean) {
            out_.warning(e.object->begin, quote(catalogue_entry_fields[i].key) + " in this entry",
                         "none: it inherits true from " + position_text(carried_from_[i]->begin));
        }
    }

    const auto [first, inserted] = first_entry_.try_emplace({vendor.text, pattern.text}, e.object);
    if (!inserted)
        out_.warning(e.object->begin, "each vendor and part number once",
                     quote(vendor.text) + " " + quote(pattern.text) + " again, first at " +
                         position_text(first->second->begin) + " (modules get the handler of " +
                         quote(list.key) + " with the first entry's description and flags)");
}

void qsfp_catalogue_checker::check_match_text(const json_node& value, std::string_view what,
                                              std::string_view module_text) {
    // The module's vendor and part number are compared in this form, so a catalogue text that
    // is not already in it can never match.
    const std::string& text = value.text;
    if (qsfpd::trim_and_upper_case(text) == text) return;
    const auto blank = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
    if (blank(text.front()) || blank(text.back()))
        out_.warning(value.begin, "a " + std::string(what) + " without surrounding blanks",
                     quote(text) + " (" + std::string(module_text) +
                         " is trimmed before matching: this entry never matches)");
    if (std::ranges::any_of(text, [](char c) { return c >= 'a' && c <= 'z'; }))
        out_.warning(value.begin, "an upper-case " + std::string(what),
                     quote(text) + " (" + std::string(module_text) +
                         " is upper-cased before matching: this entry never matches)");
}

std::string qsfp_catalogue_checker::position_text(std::size_t offset) const {
    const auto position = outline_.position(offset);
    return std::to_string(position.line) + ":" + std::to_string(position.column);
}

}  // namespace config_check
