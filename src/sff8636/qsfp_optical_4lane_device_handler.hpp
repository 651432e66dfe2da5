#pragma once

#include "qsfp_optical_device_handler.hpp"

// A four-lane optical QSFP28 (LR4, CWDM4, SR4, DWDM): on a cold start, a module with rate select
// and no application select is set to 25 Gbit/s on every lane.
class qsfp_optical_4lane_device_handler : public qsfp_optical_device_handler {
  public:
    static constexpr unsigned lane_rate_mbps = 25000;

    qsfp_optical_4lane_device_handler(dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device,
                                      std::string root_path,
                                      std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map,
                                      std::string vendor, std::string part_number,
                                      std::string part_name, std::string description,
                                      qsfp_flags_s flags, unsigned unit, unsigned num_units,
                                      std::shared_ptr<qsfpd::clock> clock = qsfpd::clock::system());

    void start();
    void run_periodic_tasks() override;

  private:
    void select_rate();
};
