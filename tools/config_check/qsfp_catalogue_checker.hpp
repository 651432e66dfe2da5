#pragma once

#include <array>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "diagnostics.hpp"
#include "json_outline.hpp"
#include "transceiver_catalogue.hpp"

namespace config_check {

// Checks a transceiver catalogue against the rules the daemon's loader enforces (errors: the
// loader would stop the daemon) and for what the loader silently takes otherwise than meant
// (warnings).
class qsfp_catalogue_checker {
  public:
    // A root object with at least one of the list names.
    static bool recognises(const json_outline& outline);
    static void check(const json_outline& outline, diagnostics& out);

  private:
    // One entry whose members all have the right types, as the loader would read it.
    struct entry {
        const json_node* object;
        std::array<const json_node*, qsfpd::catalogue_entry_fields.size()> fields{};
    };

    qsfp_catalogue_checker(const json_outline& outline, diagnostics& out)
        : outline_(outline), out_(out) {}

    void check_root(const json_node& root);
    void check_list(const qsfpd::catalogue_list_info& list, const json_node& array);
    std::optional<entry> check_entry_members(const json_node& object);
    // What the loader makes of a valid entry, in the order it reads them.
    void check_entry_meaning(const qsfpd::catalogue_list_info& list, const entry& e);
    void check_match_text(const json_node& value, std::string_view what,
                          std::string_view module_text);
    std::string position_text(std::size_t offset) const;

    const json_outline& outline_;
    diagnostics& out_;
    std::array<const json_node*, qsfpd::catalogue_lists.size()> lists_{};
    // Per carrying-over flag, the last entry that gave it (nullptr: none yet).
    std::array<const json_node*, qsfpd::catalogue_entry_fields.size()> carried_from_{};
    std::map<std::pair<std::string, std::string>, const json_node*> first_entry_;
};

}  // namespace config_check
