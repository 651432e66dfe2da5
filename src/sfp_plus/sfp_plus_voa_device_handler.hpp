#pragma once

#include <memory>
#include <string>

#include "sfp_plus_optical_device_handler.hpp"

// An optical SFP+ with a variable optical attenuator in its receive path (register layout in
// docs/sfp-voa.md): the optical handler's values plus the attenuation setting.
class sfp_plus_voa_device_handler : public sfp_plus_optical_device_handler {
  public:
    sfp_plus_voa_device_handler(dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device,
                                std::string root_path, std::shared_ptr<sfp_reg_map> reg_map,
                                std::string vendor, std::string part_number, std::string part_name,
                                std::string description, sfp_flags_s flags, unsigned unit,
                                unsigned num_units,
                                std::shared_ptr<qsfpd::clock> clock = qsfpd::clock::system());

    void start() override;

    // dB, to 0.01 dB.
    void set_attenuation(double db);
    double get_attenuation_setpoint();
    double get_attenuation();
    double get_max_attenuation();
    bool get_attenuation_settling();
};
