#include "optical_alarms.hpp"

#include <algorithm>
#include <chrono>

#include "dh_error.hpp"
#include "msg_log.hpp"

using dh::api::status_value;

namespace {

constexpr unsigned cycles_per_bucket = 10;
// TX fault: "not detected" is logged no sooner than this after "detected".
constexpr double tx_fault_log_hold_seconds = 3.0;

}  // namespace

optical_alarms::optical_alarms(unsigned lane_count, double los_threshold_dbm,
                               std::shared_ptr<qsfpd::clock> clock)
    : lane_count_(std::min(lane_count, max_lanes)),
      lane_mask_(static_cast<std::uint8_t>((1u << lane_count_) - 1)),
      los_threshold_dbm_(los_threshold_dbm),
      clock_(std::move(clock)) {}

bool optical_alarms::lane_flag(const std::array<bool, max_lanes>& flags, unsigned lane,
                               const char* what) const {
    if (lane >= lane_count_)
        throw dh_error(dh::errc::invalid,
                       std::string("Illegal channel index while getting ") + what);
    return flags[lane];
}

void optical_alarms::process(const inputs& in, const std::string& tag,
                             const std::string& module_name) {
    const auto now = clock_->now();
    for (unsigned lane = 0; lane < lane_count_; ++lane) {
        lane_tx_fault_[lane] = (in.tx_fault >> lane) & 1u;
        lane_los_[lane] = (in.rx_los >> lane) & 1u;
        lane_lol_[lane] = (in.rx_lol >> lane) & 1u;
    }

    if (++cycle_ >= cycles_per_bucket) {
        cycle_ = 0;
        los_.shift();
        lol_.shift();
    }

    const bool tx_fault = (in.tx_fault & lane_mask_) != 0;
    if (nodes_.tx_fault) nodes_.tx_fault->update(tx_fault ? 1 : 0);
    if (tx_fault && !tx_fault_state_) {
        tx_fault_state_ = true;
        tx_fault_set_ = now;
        MSG_LOG(msg_log::info, tag) << "TX_FAULT detected " << module_name;
    } else if (!tx_fault && tx_fault_state_ &&
               std::chrono::duration<double>(now - tx_fault_set_).count() >
                   tx_fault_log_hold_seconds) {
        tx_fault_state_ = false;
        MSG_LOG(msg_log::info, tag) << "TX_FAULT not detected " << module_name;
    }

    bool raw_los = (in.rx_los & lane_mask_) != 0;
    if (!raw_los) raw_los = in.total_rx_power_dbm < los_threshold_dbm_;
    auto publish = [&](const event_suppression::outcome& o,
                       const std::shared_ptr<status_value<int>>& alarm) {
        if (!o.message.empty()) MSG_LOG(msg_log::info, tag) << o.message << module_name;
        if (o.push && alarm) alarm->update(*o.push);
    };
    publish(los_.update(raw_los), nodes_.los);
    for (unsigned lane = 0; lane < lane_count_ && lane < nodes_.lane_los.size(); ++lane)
        if (nodes_.lane_los[lane]) nodes_.lane_los[lane]->update(lane_los_[lane] ? 1 : 0);

    // Loss of lock means nothing without light: it is never reported under LOS.
    const std::uint8_t lol_bits = los_.state() ? 0 : (in.rx_lol & lane_mask_);
    for (unsigned lane = 0; lane < lane_count_; ++lane)
        lane_lol_[lane] = (lol_bits >> lane) & 1u;
    publish(lol_.update(lol_bits != 0), nodes_.lol);

    temp_alarm_state_ = in.temp_high_alarm;
    temp_warning_state_ = in.temp_high_warning;
    if (nodes_.temperature)
        nodes_.temperature->update(temp_alarm_state_ ? 2 : temp_warning_state_ ? 1 : 0);

    if (in.high_temp_shutdown != shutdown_state_) {
        shutdown_state_ = in.high_temp_shutdown;
        MSG_LOG(msg_log::info, tag) << (shutdown_state_ ? "High temp shutdown detected "
                                                        : "High temp shutdown not detected ")
                                    << module_name;
    }
    if (nodes_.high_temp_shutdown) nodes_.high_temp_shutdown->update(shutdown_state_ ? 2 : 0);
}
