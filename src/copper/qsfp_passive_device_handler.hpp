#pragma once

#include <memory>
#include <string>

#include "qsfp_device_handler.hpp"

// A passive copper (direct-attach) QSFP: no optics to watch. It publishes temperature, TX enable
// and admin/oper status, and takes loss of signal and loss of lock from the gearbox handler in
// front of the cage, which sees the electrical lanes the cable carries.
class qsfp_passive_device_handler : public qsfp_device_handler {
  public:
    static constexpr unsigned lane_count = 4;

    qsfp_passive_device_handler(dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device,
                                std::string root_path,
                                std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map,
                                std::string vendor, std::string part_number, std::string part_name,
                                std::string description, qsfp_flags_s flags, unsigned unit,
                                unsigned num_units,
                                std::shared_ptr<qsfpd::clock> clock = qsfpd::clock::system());
    ~qsfp_passive_device_handler() override;

    void start();
    void run_periodic_tasks() override;
    std::string get_port_admin_status() override;

    // Lanes 0..3 of the gearbox whose "hasLock" / "hasLink" is true; 0 when the gearbox cannot
    // be asked (reported on standard output).
    unsigned get_active_locks();
    unsigned get_active_links();

    void set_tx_enable(bool enable);
    bool get_tx_enable();
    double get_trx_temperature();
    std::string get_fw_revision();

  protected:
    void _set_port_admin_status(bool up) override;

  private:
    unsigned count_lanes(const char* signature, const char* flag);
    bool _get_tx_enable();
    bool has_tx_disable();

    std::shared_ptr<dh::api::const_value<unsigned>> lanes_node_;
    std::shared_ptr<dh::api::status_value<int>> los_alarm_;
    std::shared_ptr<dh::api::status_value<int>> lol_alarm_;
    std::shared_ptr<dh::api::status_value<std::string>> oper_status_node_;
};
