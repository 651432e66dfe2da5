#pragma once

#include <memory>
#include <string>

#include "sfp_plus_device_handler.hpp"

// A direct-attach SFP+ cable: no optics, no monitors; it publishes what kind of cable it is and
// how long, besides the common inventory, admin status and TX enable.
class sfp_plus_passive_device_handler : public sfp_plus_device_handler {
  public:
    sfp_plus_passive_device_handler(dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device,
                                    std::string root_path, std::shared_ptr<sfp_reg_map> reg_map,
                                    std::string vendor, std::string part_number,
                                    std::string part_name, std::string description,
                                    sfp_flags_s flags, unsigned unit, unsigned num_units,
                                    std::shared_ptr<qsfpd::clock> clock = qsfpd::clock::system());

    void start() override;

    // "passive", "active" or "n/a" (SFF-8472 byte 8 bits 2 and 3).
    std::string get_cable_type();
    // Byte 18, metres.
    unsigned get_cable_length();
};
