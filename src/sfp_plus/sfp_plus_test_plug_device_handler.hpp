#pragma once

#include <memory>
#include <string>

#include "sfp_plus_device_handler.hpp"

// A loopback test plug: the common inventory and its loopback state (A2h byte 73, the test
// plugs' control byte).
class sfp_plus_test_plug_device_handler : public sfp_plus_device_handler {
  public:
    sfp_plus_test_plug_device_handler(dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device,
                                      std::string root_path, std::shared_ptr<sfp_reg_map> reg_map,
                                      std::string vendor, std::string part_number,
                                      std::string part_name, std::string description,
                                      sfp_flags_s flags, unsigned unit, unsigned num_units,
                                      std::shared_ptr<qsfpd::clock> clock = qsfpd::clock::system());

    void start() override;

    bool get_loopback();
    void set_loopback(bool on);
};
