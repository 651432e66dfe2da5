#include "application_list_checker.hpp"

#include <algorithm>
#include <set>
#include <vector>

#include "name_suggestion.hpp"

namespace config_check {
namespace {

namespace cmis = qsfpd::cmis;

std::string value_wanted(cmis::code_value type) {
    switch (type) {
        case cmis::code_value::id:
            return "a media code in hex (0 to FF)";
        case cmis::code_value::text:
            return "a string";
        case cmis::code_value::whole:
            return "a whole number 0 to 65535";
        case cmis::code_value::real:
            return "a non-negative number";
    }
    return {};
}

std::vector<std::string_view> code_keys() {
    std::vector<std::string_view> keys;
    for (const auto& field : cmis::code_fields)
        keys.push_back(field.key);
    return keys;
}

}  // namespace

bool application_list_checker::recognises(const json_outline& outline) {
    if (outline.syntax_error() || outline.root().type != json_type::object) return false;
    const auto members = outline.children(outline.root());
    return std::ranges::any_of(
        members, [](const json_node* member) { return member->key == cmis::table_key; });
}

void application_list_checker::check(const json_outline& outline, diagnostics& out) {
    application_list_checker(outline, out).check_root(outline.root());
}

const json_node* application_list_checker::member(const json_node& object,
                                                  std::string_view key) const {
    if (object.type != json_type::object) return nullptr;
    for (const auto* child : outline_.children(object))
        if (child->key == key) return child;
    return nullptr;
}

cmis::member_lookup application_list_checker::members(const json_node& object) const {
    return [this, &object](std::string_view key) -> cmis::json_member {
        using type = cmis::json_member::type;
        const auto* node = member(object, key);
        if (!node) return {};
        switch (node->type) {
            case json_type::string:
                return {type::string, node->text, 0};
            case json_type::number:
                return {type::number, {}, node->number};
            case json_type::array:
                return {type::array, {}, 0};
            default:
                return {type::other, {}, 0};
        }
    };
}

void application_list_checker::check_names(const json_node& object,
                                           const std::vector<std::string_view>& known,
                                           std::string_view what) {
    std::set<std::string> seen;
    for (const auto* child : outline_.children(object)) {
        if (!seen.insert(child->key).second) {
            out_.warning(child->key_begin, quote(child->key) + " once in this object",
                         "it again (the daemon reads only the first)");
        } else if (std::ranges::find(known, child->key) == known.end()) {
            auto near = closest_name(child->key, known);
            // The handler publishes a code's fields under other names; an author copying them
            // from its output means the file's own.
            if (child->key == "LaneSignalRate") near = "LaneSignallingRate";
            out_.warning(child->key_begin, near ? quote(*near) : std::string(what),
                         quote(child->key) + " (the daemon ignores unknown keys)");
        }
    }
}

void application_list_checker::check_root(const json_node& root) {
    if (root.type != json_type::object) {
        out_.error(root.begin, "an object at the top level",
                   outline_.describe(root) + " (the daemon reads no custom code from it)");
        return;
    }
    check_names(root, {cmis::version_key, cmis::cmis_version_key, cmis::table_key},
                "a top-level key");
    for (const auto key : {cmis::version_key, cmis::cmis_version_key}) {
        const auto* value = member(root, key);
        if (!value)
            out_.warning(root.begin, "member " + quote(key) + " (a string or a number)",
                         "a file without it (the daemon publishes none)");
        else if (value->type != json_type::string && value->type != json_type::number)
            out_.warning(value->begin, "a string or a number for " + quote(key),
                         outline_.describe(*value) + " (the daemon publishes none)");
    }

    const auto* table = member(root, cmis::table_key);
    if (!table || table->type != json_type::object) {
        const auto wanted = "an object for " + quote(cmis::table_key);
        const std::string skipped = " (the daemon reads no custom code)";
        if (table)
            out_.error(table->begin, wanted, outline_.describe(*table) + skipped);
        else
            out_.error(root.begin, wanted, "a file without it" + skipped);
        return;
    }
    const auto* custom = member(*table, cmis::custom_key);
    if (!custom || custom->type != json_type::array) {
        const auto wanted = "an array for " + quote(cmis::custom_key);
        const std::string skipped = " (the daemon reads no custom code)";
        if (custom)
            out_.error(custom->begin, wanted, outline_.describe(*custom) + skipped);
        else
            out_.error(table->begin, wanted, "a table without it" + skipped);
        return;
    }
    for (const auto* product : outline_.children(*custom))
        check_product(*product);
}

void application_list_checker::check_product(const json_node& product) {
    const std::string skipped = " (the daemon skips this product)";
    if (product.type != json_type::object) {
        out_.error(product.begin, "an object for each product of " + quote(cmis::custom_key),
                   outline_.describe(product) + skipped);
        return;
    }
    check_names(product, {cmis::product_name_key, cmis::product_codes_key}, "a product key");
    const auto verdict = cmis::check_product(members(product));
    if (verdict != cmis::product_verdict::valid) {
        const bool name = verdict == cmis::product_verdict::not_a_product;
        const auto key = name ? cmis::product_name_key : cmis::product_codes_key;
        const std::string type = name ? "a string" : "an array";
        if (const auto* value = member(product, key))
            out_.error(value->begin, type + " for " + quote(key),
                       outline_.describe(*value) + skipped);
        else
            out_.error(product.begin, "member " + quote(key) + " (" + type + ")",
                       "a product without it" + skipped);
        return;
    }
    const auto& name = member(product, cmis::product_name_key)->text;
    for (const auto* code : outline_.children(*member(product, cmis::product_codes_key)))
        check_code(name, *code);
}

void application_list_checker::check_code(const std::string& product, const json_node& code) {
    if (code.type != json_type::object) {
        out_.error(code.begin, "an object for each code of " + quote(cmis::product_codes_key),
                   outline_.describe(code) + " (the daemon skips it)");
        return;
    }
    check_names(code, code_keys(), "a code key");
    const auto verdict = cmis::check_code(members(code));
    const std::string skipped = verdict.code ? " (the daemon skips code " + quote(verdict.id) + ")"
                                             : std::string(" (the daemon skips this code)");
    for (const auto* field : verdict.improper) {
        if (const auto* value = member(code, field->key))
            out_.error(value->begin, value_wanted(field->type) + " for " + quote(field->key),
                       outline_.describe(*value) + skipped);
        else
            out_.error(code.begin,
                       "member " + quote(field->key) + " (" + value_wanted(field->type) + ")",
                       "a code without it" + skipped);
    }
    if (!verdict.code) return;
    if (verdict.enhanced_mode_missing)
        out_.warning(
            code.begin, "member " + quote(cmis::enhanced_mode_key) + " (a string)",
            "a code without it (the daemon takes code " + quote(verdict.id) + " as not enhanced)");
    if (!verdict.record) return;
    const auto [first, inserted] = first_code_.try_emplace({product, *verdict.code}, &code);
    if (!inserted)
        out_.warning(code.begin, "each code once per product",
                     quote(verdict.id) + " of " + quote(product) + " again, first at " +
                         position_text(first->second->begin) + " (the daemon keeps the first)");
}

std::string application_list_checker::position_text(std::size_t offset) const {
    const auto position = outline_.position(offset);
    return std::to_string(position.line) + ":" + std::to_string(position.column);
}

}  // namespace config_check
