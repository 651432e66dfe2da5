#include "qsfp_dd_cmis5_device_handler.hpp"

#include <algorithm>

#include <fmt/format.h>

#include "coherent_tuning.hpp"
#include "msg_log.hpp"

using namespace dh::api;

namespace {

// The two applications beyond the plain rates, by the media code that carries them:
// ZR200-OFEC-16QAM (a vendor code on the modules that have it) and 100GBASE-ZR with its
// staircase FEC.
struct extra_application {
    const char* name;
    std::uint8_t media_code;
};
constexpr std::array<extra_application, 2> extra_applications = {{
    {"200G16QAM", 0xF3},
    {"100GscFEC", 0x44},
}};

// Fault flag bits, in the order of the debounce counters.
enum fault_bit : unsigned { tx_remote, tx_local, rx_remote, rx_local };
constexpr std::array<const char*, 4> fault_names = {"tx_remote_flag", "tx_local_flag",
                                                    "rx_remote_flag", "rx_local_flag"};

}  // namespace

qsfp_dd_cmis5_device_handler::qsfp_dd_cmis5_device_handler(
    dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device, std::string root_path,
    std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map, std::string vendor, std::string part_number,
    std::string part_name, std::string description, qsfp_flags_s flags, unsigned unit,
    unsigned num_units, std::shared_ptr<qsfpd::clock> clock)
    : qsfp_dd_coherent_device_handler(db, std::move(device), std::move(root_path),
                                      std::move(reg_map), std::move(vendor), std::move(part_number),
                                      std::move(part_name), std::move(description), flags, unit,
                                      num_units, std::move(clock), "cmis5") {
    auto lock = lock_handler();
    debounce_.resize(banks());
}

unsigned qsfp_dd_cmis5_device_handler::banks() const {
    return std::max(1u, reg_map_->get_banks_supported());
}

void qsfp_dd_cmis5_device_handler::start() {
    using self_type = qsfp_dd_cmis5_device_handler;
    qsfp_dd_device_handler::start();
    const auto self = std::static_pointer_cast<self_type>(shared_from_this());

    add_head_nodes();
    group_node(
        volatile_value<&self_type::get_tx_enable_state>::create(db_, path("data/txEnable"), self));
    const auto severity = [&](const std::string& p) {
        return group_node(status_value<int>::create(db_, path(p), self, 0));
    };
    remote_rx_fault_ = severity("alarms/remoteRxFault/severity");
    local_rx_fault_ = severity("alarms/localRxFault/severity");
    // A client per data path the module can run at most: the application with the fewest host
    // lanes decides.
    unsigned narrowest = qsfpd::cage::qsfp_reg_map::max_dd_lanes;
    for (const auto& [number, app] : application_map())
        if (app.host_lane_count != 0)
            narrowest = std::min<unsigned>(narrowest, app.host_lane_count);
    const unsigned clients = qsfpd::cage::qsfp_reg_map::max_dd_lanes / narrowest;
    for (unsigned client = 0; client < clients; ++client)
        tx_faults_.push_back(
            {severity(fmt::format("alarms/client/{}/remoteTxFault/severity", client + 1)),
             severity(fmt::format("alarms/client/{}/localTxFault/severity", client + 1))});
    add_line_power_nodes();
    add_pulse_shaping_nodes();
    add_module_threshold_nodes();
    std::vector<std::string> applications{"400G", "300G", "200G", "100G"};
    for (const auto& extra : extra_applications)
        applications.emplace_back(extra.name);
    add_tuning_nodes(std::move(applications));
    add_q_nodes();
    group_node(volatile_value<&self_type::get_cd_average>::create(
        db_, path("data/chromaticDispersion"), self));
    group_node(volatile_value<&self_type::get_post_fec_ber_curr>::create(
        db_, path("data/postFecBer"), self));
    group_node(volatile_value<&self_type::get_nominal_laser_wavelength>::create(
        db_, path("data/wavelength"), self));
    group_node(volatile_value<&self_type::get_diff_group_delay>::create(
        db_, path("data/diffGroupDelay"), self));
    add_fec_nodes();
    // The line and host statistics this module gives through VDM, with their flags and
    // thresholds.
    register_VDM_nodes();
    add_custom_threshold_nodes();
    add_tx_power_nodes();
    add_admin_and_prbs_nodes();
    add_laser_page_dump();
    finish_start("qsfp_dd_cmis5_dh");
}

bool qsfp_dd_cmis5_device_handler::check_local_remote_faults_flags(bool flag, unsigned& set_count,
                                                                   unsigned& clear_count) {
    if (flag) {
        if (set_count < fault_readings - 1) {
            ++set_count;
            return false;
        }
        clear_count = 0;
        return true;
    }
    if (clear_count > fault_readings - 2) {
        set_count = 0;
        return false;
    }
    ++clear_count;
    return true;
}

void qsfp_dd_cmis5_device_handler::run_periodic_tasks() {
    qsfp_dd_coherent_device_handler::run_periodic_tasks();
    auto lock = lock_handler();
    VDM_refresh();
    const std::string tag = info_tag();
    bool rx_remote_fault = false;
    bool rx_local_fault = false;
    std::vector<std::array<bool, 2>> tx(tx_faults_.size());
    const unsigned clients_per_bank =
        std::max<std::size_t>(1, tx_faults_.size() / std::max<std::size_t>(1, debounce_.size()));
    for (unsigned bank = 0; bank < debounce_.size(); ++bank) {
        MSG_LOG(msg_log::debug, tag) << "Reading fault flags from bank " << bank;
        const std::uint8_t flags = reg_map_->get_dd_cmis5_fault_flags(bank);
        std::array<bool, 4> reported{};
        auto& d = debounce_[bank];
        for (unsigned bit = 0; bit < 4; ++bit) {
            const bool raw = (flags >> bit) & 1u;
            MSG_LOG(msg_log::debug, tag) << "Fault flag " << fault_names[bit] << ": " << raw;
            reported[bit] =
                check_local_remote_faults_flags(raw, d.set_count[bit], d.clear_count[bit]);
        }
        rx_remote_fault = rx_remote_fault || reported[rx_remote];
        rx_local_fault = rx_local_fault || reported[rx_local];
        for (unsigned c = bank * clients_per_bank;
             c < std::min<std::size_t>(tx.size(), (bank + 1) * clients_per_bank); ++c)
            tx[c] = {reported[tx_remote], reported[tx_local]};
    }
    remote_rx_fault_->update(rx_remote_fault ? 1 : 0);
    local_rx_fault_->update(rx_local_fault ? 1 : 0);
    for (unsigned c = 0; c < tx.size(); ++c) {
        tx_faults_[c][0]->update(tx[c][0] ? 1 : 0);
        tx_faults_[c][1]->update(tx[c][1] ? 1 : 0);
    }
}

void qsfp_dd_cmis5_device_handler::set_application(std::string name) {
    const auto extra = std::find_if(extra_applications.begin(), extra_applications.end(),
                                    [&](const extra_application& e) { return name == e.name; });
    if (extra == extra_applications.end()) {
        // The plain rates leave the two special modes to their own names.
        const unsigned rate = static_cast<unsigned>(std::atoi(name.c_str()));
        select_application(name, [&](const applicationList_t& app) {
            const unsigned code = static_cast<unsigned>(std::stoul(app.media.IdHex, nullptr, 16));
            return app.media.Bitrate == rate &&
                   std::none_of(extra_applications.begin(), extra_applications.end(),
                                [&](const extra_application& e) { return e.media_code == code; });
        });
        return;
    }
    {
        auto lock = lock_handler();
        const bool offered = read_for("get_dd_cmis5_media_code_support", [&] {
            return reg_map_->get_dd_cmis5_media_code_support(extra->media_code);
        });
        if (!offered) throw dh_error(dh::errc::invalid, "QSFP-DD application not available");
    }
    select_application(name, [&](const applicationList_t& app) {
        return static_cast<unsigned>(std::stoul(app.media.IdHex, nullptr, 16)) == extra->media_code;
    });
}

double qsfp_dd_cmis5_device_handler::get_post_fec_ber_curr() {
    auto lock = lock_handler();
    return read_for("get_post_fec_ber_curr", [&] {
        return qsfpd::coherent::f16_value(reg_map_->get_dd_cmis5_post_fec_ber_curr());
    });
}

bool qsfp_dd_cmis5_device_handler::get_tx_enable_state() {
    return get_tx_enable();
}

int qsfp_dd_cmis5_device_handler::get_cd_average() {
    auto lock = lock_handler();
    // C-CMIS link PM: the dispersion the DSP compensates, averaged over the PM interval.
    return read_for("get_cd", [&] { return static_cast<int>(reg_map_->get_dd_cd_average()); });
}
