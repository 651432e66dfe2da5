#pragma once

// The SFF-8024 interface codes a CMIS module advertises its applications with: a host electrical
// interface code and a media interface code whose table the module's media type encoding picks.
// Constant data, built once on first use and shared read-only by every handler.

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>

namespace qsfpd::cmis {

// One interface code, decoded. Constructed with its fields in this order.
struct app_code_info_t {
    std::string IdHex;          // the code in upper-case hex, no prefix, no leading zero: "9", "11"
    std::string Interface;      // the interface name as operators know it
    std::uint16_t Bitrate;      // nominal rate, Gbit/s
    std::uint16_t LaneCount;    // lanes
    std::string Modulation;     // "NRZ", "PAM4", "DP-16QAM", ...
    std::string FEC;            // empty when the interface has none
    float ApplicationBitRate;   // Gbit/s as SFF-8024 lists it (103.13 for 100GBASE-SR4)
    float LaneSignalRate;       // GBd per lane
    float BitsPerUnitInterval;  // B/UI: 1 NRZ, 2 PAM4, 4 DP-QPSK, 6 DP-8QAM, 8 DP-16QAM
    std::string EnhancedMode;   // "Enhanced" for the enhanced coherent modes, else empty

    bool operator==(const app_code_info_t&) const = default;
};

// The record of a code no table knows: IdHex names it, everything else is "Unknown" or zero.
app_code_info_t unknown_app_code(unsigned code);

// Upper-case hex without prefix or leading zero, as IdHex holds it.
std::string id_hex(unsigned code);

// One row of a table as written in the source: the key and the record's fields.
struct app_code_row {
    std::uint8_t code;
    std::string_view id_hex;
    std::string_view interface;
    std::uint16_t bitrate;
    std::uint16_t lane_count;
    std::string_view modulation;
    std::string_view fec;
    double application_bit_rate;
    double lane_signal_rate;
    double bits_per_ui;
    std::string_view enhanced_mode = {};
};

enum class code_table { host, mmf, smf, passive_copper, active_cable, base_t };

// The media table of a media type encoding (lower page byte 85): 1 MMF, 2 SMF, 3 passive
// copper, 4 active cable, 5 BASE-T; none for anything else.
std::optional<code_table> media_table_of(unsigned media_type_encoding);
// "mmf", "smf", "passive copper", "active cable", "base_t", "host": the word the handler's
// "Unknown ... code" log lines use.
std::string_view table_word(code_table table);

using app_code_map = std::unordered_map<unsigned, app_code_info_t>;

// The rows of a table as written, for tests that check every row.
std::span<const app_code_row> rows(code_table table);
// The table as a map, built once.
const app_code_map& table(code_table table);
// The record of `code` in `table`, or none.
const app_code_info_t* find_code(code_table table, unsigned code);

// Coherent modes the maker's own modules advertise under vendor-specific media codes, keyed by
// the module's part number, then by the media code. Consulted when the standard table has no row.
const std::unordered_map<std::string, app_code_map>& builtin_custom_codes();

// A host interface a transponder service needs.
struct host_info_t {
    std::string_view interface;
    std::uint8_t host_code;
    std::uint16_t lane_count;
    std::uint16_t bitrate;
};

// The names of the host side of a transponder service and the host interfaces they need.
struct zelt_common_definitions {
    static constexpr std::string_view string_100G = "100GbE-100GbE";
    static constexpr std::string_view string_1x100G = "1x100GbE-1x100GbE";
    static constexpr std::string_view string_2x100G = "2x100GbE-2x100GbE";
    static constexpr std::string_view string_3x100G = "3x100GbE-3x100GbE";
    static constexpr std::string_view string_4x100G = "4x100GbE-4x100GbE";
    static constexpr std::string_view string_400G = "400GbE-400GbE";
    static constexpr std::string_view Muxponder_400G = "400G Muxponder";

    static const host_info_t CAUI4_100G;
    static const host_info_t GAUI2_100G;
    static const host_info_t GAUI2_200G;
    static const host_info_t GAUI2_300G;
    static const host_info_t GAUI2_400G;
    static const host_info_t GAUI8_400G;
    static const host_info_t GAUI2_host_code;

    // Service name to the host interface it needs.
    static const std::map<std::string, host_info_t, std::less<>>& host_info();
};

}  // namespace qsfpd::cmis
