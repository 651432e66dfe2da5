#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <utility>

namespace qsfpd {

// Maps the SFF-8636 nominal wavelength register (unit 0.05 nm) to the wavelength text and the
// ITU channel name the daemon reports for the module.
class channel_converter {
  public:
    // (wavelength text in nm, channel name)
    using entry = std::pair<std::string, std::string>;
    using table = std::map<unsigned, entry>;

    // {"n/a", "n/a"} for a register value that is not in the table.
    static entry get_qsfp_wavelength_and_channel_id(unsigned value);

    // The whole table, keyed by register value; built once, never changed.
    static const table& channel_map();
    static std::size_t channel_count() { return channel_map().size(); }
};

}  // namespace qsfpd
