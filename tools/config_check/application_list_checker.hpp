#pragma once

#include <map>
#include <string>
#include <utility>

#include "application_list_file.hpp"
#include "diagnostics.hpp"
#include "json_outline.hpp"

namespace config_check {

// Checks an application list file against the rules of the daemon's reader, which it shares
// (qsfpd::cmis::check_product and check_code). Errors: what the reader logs and skips (a code,
// a product, or every custom code). Warnings: what it reads, but likely not as meant.
class application_list_checker {
  public:
    // A root object with "applicationTable".
    static bool recognises(const json_outline& outline);
    static void check(const json_outline& outline, diagnostics& out);

  private:
    application_list_checker(const json_outline& outline, diagnostics& out)
        : outline_(outline), out_(out) {}

    void check_root(const json_node& root);
    void check_product(const json_node& product);
    void check_code(const std::string& product, const json_node& code);
    // Warns of repeated and unknown member names; the first of a repeated name is the one read.
    void check_names(const json_node& object, const std::vector<std::string_view>& known,
                     std::string_view what);
    const json_node* member(const json_node& object, std::string_view key) const;
    qsfpd::cmis::member_lookup members(const json_node& object) const;
    std::string position_text(std::size_t offset) const;

    const json_outline& outline_;
    diagnostics& out_;
    // Per part number and code, the element first accepted for it.
    std::map<std::pair<std::string, unsigned>, const json_node*> first_code_;
};

}  // namespace config_check
