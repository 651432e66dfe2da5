#pragma once

#include <array>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "sfp_flags.hpp"

namespace qsfpd {

// The arrays of the SFP catalogue ("/etc/transceiver_sfp+.json"), in the order they are read.
enum class sfp_catalogue_list : std::size_t { optical, passive, voa, test };

struct sfp_catalogue_list_info {
    sfp_catalogue_list list;
    std::string_view key;
};

inline constexpr std::array<sfp_catalogue_list_info, 4> sfp_catalogue_lists{{
    {sfp_catalogue_list::optical, "opticalTransceiverList"},
    {sfp_catalogue_list::passive, "passiveTransceiverList"},
    {sfp_catalogue_list::voa, "voaTransceiverList"},
    {sfp_catalogue_list::test, "testTransceiverList"},
}};

// One entry: vendor, part-number pattern and part name identify it (in that order of keys).
struct sfp_probe_id {
    std::string vendor;
    std::string part_number;
    std::string part_name;
    sfp_flags_s flags;
};

struct sfp_probe_id_less {
    bool operator()(const sfp_probe_id& a, const sfp_probe_id& b) const;
};

// Creates the SFP+ handler of an entry's array.
using sfp_probe_factory = std::function<void(const sfp_probe_id& entry)>;
using sfp_probe_map = std::map<sfp_probe_id, sfp_probe_factory, sfp_probe_id_less>;

// Reads the catalogue. A file that cannot be opened, does not parse or holds a value of the wrong
// type (a "wdm" text other than the five names included) is logged under `log_tag` and gives an
// empty map: every SFP is then served as unsupported, and the cage keeps running. (Unlike the
// QSFP catalogue, which is read once at start, this one is read at every converter insertion.)
sfp_probe_map load_sfp_probe_map(
    const std::string& file_path,
    const std::function<sfp_probe_factory(sfp_catalogue_list)>& factory_for,
    const std::string& log_tag);
sfp_probe_map load_sfp_probe_map_from_text(
    std::string_view json, const std::function<sfp_probe_factory(sfp_catalogue_list)>& factory_for,
    const std::string& log_tag);

// The first entry in key order whose vendor equals `vendor` and whose pattern is a prefix of
// `part_number` or, at the same length, matches it with '*' standing for any one character.
// Throws std::out_of_range("Unsupported transceiver.").
sfp_probe_map::const_iterator find_in_sfp_map(const sfp_probe_map& map, const std::string& vendor,
                                              const std::string& part_number);

// Whether `pattern` selects `part_number` by the rule above.
bool sfp_part_number_matches(std::string_view pattern, std::string_view part_number);

}  // namespace qsfpd
