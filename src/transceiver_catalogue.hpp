#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "qsfp_flags.hpp"

namespace qsfpd {

// The lists of the transceiver catalogue, in the order they are read. A module listed in two
// lists gets the factory of the later one, so this order is part of the file's meaning.
enum class catalogue_list : std::size_t {
    optical_4lane,
    optical_1or2lane,
    optical_1lane,
    passive,
    optical_dd_1lane,
    optical_cmis5_1lane,
    optical_1lane_pam4,
    optical_dd_4lane,
};

struct catalogue_list_info {
    catalogue_list list;
    std::string_view key;            // member name in the catalogue file
    std::string_view handler_class;  // the handler its entries are driven by
};

inline constexpr std::array<catalogue_list_info, 8> catalogue_lists{{
    {catalogue_list::optical_4lane, "optical4LaneTransceiverList",
     "qsfp_optical_4lane_device_handler"},
    {catalogue_list::optical_1or2lane, "optical1or2LaneTransceiverList",
     "qsfp_optical_1or2lane_device_handler"},
    {catalogue_list::optical_1lane, "optical1LaneTransceiverList",
     "qsfp_optical_1lane_device_handler"},
    {catalogue_list::passive, "passiveTransceiverList", "qsfp_passive_device_handler"},
    {catalogue_list::optical_dd_1lane, "opticalDD1LaneTransceiverList",
     "qsfp_dd_acacia_1lane_device_handler"},
    {catalogue_list::optical_cmis5_1lane, "opticalCMIS51LaneTransceiverList",
     "qsfp_dd_cmis5_1lane_hpower_device_handler"},
    {catalogue_list::optical_1lane_pam4, "optical1LanePam4TransceiverList",
     "qsfp_optical_1lane_pam4_device_handler"},
    {catalogue_list::optical_dd_4lane, "opticalDD4LaneTransceiverList",
     "qsfp_dd_optical_4lane_device_handler"},
}};

constexpr const catalogue_list_info& list_info(catalogue_list list) {
    return catalogue_lists[static_cast<std::size_t>(list)];
}

// One catalogue entry. Only vendor and part-number pattern identify it; description and flags
// are what the module's handler is given.
struct probe_id {
    std::string vendor;
    std::string part_number;  // pattern: '*' stands for any one character
    std::string description;
    qsfp_flags_s flags;
};

// What an entry may hold. Text fields are required, flags optional. The loader and
// qsfp-config-check both walk this table, so the tool accepts exactly what the daemon accepts.
enum class catalogue_value { text, flag };

struct catalogue_entry_field {
    std::string_view key;
    catalogue_value type;
    std::string probe_id::*text;  // the field a text fills (flags: nullptr)
    bool qsfp_flags_s::*flag;     // the flag a boolean sets (texts: nullptr)
    // Left out of an entry, the flag keeps the value of the entry read before it, across lists
    // too; existing catalogue files rely on that for "isAutoNeg".
    bool carries_over;

    constexpr bool required() const { return type == catalogue_value::text; }
};

// In the order the loader reads them: with two faults in one entry, the first one here is the
// one logged.
inline constexpr std::array<catalogue_entry_field, 7> catalogue_entry_fields{{
    {"partNumber", catalogue_value::text, &probe_id::part_number, nullptr, false},
    {"description", catalogue_value::text, &probe_id::description, nullptr, false},
    {"vendor", catalogue_value::text, &probe_id::vendor, nullptr, false},
    {"isAutoNeg", catalogue_value::flag, nullptr, &qsfp_flags_s::isAutoNeg, true},
    {"isFec", catalogue_value::flag, nullptr, &qsfp_flags_s::isFec, false},
    {"isTxTuning", catalogue_value::flag, nullptr, &qsfp_flags_s::isTxTuning, false},
    {"isCertified", catalogue_value::flag, nullptr, &qsfp_flags_s::isCertified, false},
}};

// Vendor first, then part-number pattern, both byte-wise.
struct probe_id_less {
    bool operator()(const probe_id& a, const probe_id& b) const;
};

// Creates and starts the handler for a module found in the catalogue.
using probe_factory =
    std::function<void(const std::string& vendor, const std::string& part_number,
                       const std::string& description, const qsfp_flags_s& flags)>;

using probe_map = std::map<probe_id, probe_factory, probe_id_less>;

// Reads the catalogue file into a probe map, each entry carrying the factory that `factory_for`
// returns for its list. A missing or malformed file is logged (under `log_tag`) and gives an
// empty map; a file with values of the wrong type ends the process.
probe_map load_probe_map(const std::string& file_path,
                         const std::function<probe_factory(catalogue_list)>& factory_for,
                         const std::string& log_tag);

// The same for a catalogue text already in memory: parsed exactly as the file would be.
probe_map load_probe_map_from_text(std::string_view json,
                                   const std::function<probe_factory(catalogue_list)>& factory_for,
                                   const std::string& log_tag);

// The first entry, in key order, whose vendor equals `vendor` and whose pattern matches
// `part_number` (same length, '*' or the same character at every position). Both arguments are
// expected trimmed and upper-cased. Throws std::out_of_range("Unsupported transceiver.").
probe_map::const_iterator find_in_map(const probe_map& map, const std::string& vendor,
                                      const std::string& part_number);

// A vendor name or part number as read from the module, made comparable with the catalogue:
// white space cut at both ends, upper case.
std::string trim_and_upper_case(std::string_view text);

}  // namespace qsfpd
