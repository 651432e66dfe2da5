#include "value_group.hpp"

#include <vector>

#include "dh_error.hpp"
#include "grid_schedule.hpp"
#include "msg_log.hpp"

namespace dh::api {

value_group::value_group(std::chrono::milliseconds period, unsigned unit, unsigned num_units,
                         std::shared_ptr<qsfpd::clock> clock, bool active)
    : period_(period),
      unit_(unit),
      num_units_(num_units),
      clock_(std::move(clock)),
      active_(active) {
    thread_ = std::jthread([this](std::stop_token stop) { run(stop); });
}

value_group::~value_group() {
    thread_.request_stop();
    if (thread_.joinable()) thread_.join();
}

void value_group::add_value(const std::shared_ptr<dh_db_leaf_node>& node, int index) {
    std::lock_guard lock(mutex_);
    nodes_.emplace(index, node);
}

std::size_t value_group::size() const {
    std::lock_guard lock(mutex_);
    return nodes_.size();
}

void value_group::activate() {
    std::lock_guard lock(mutex_);
    active_ = true;
}

bool value_group::active() const {
    std::lock_guard lock(mutex_);
    return active_;
}

std::uint64_t value_group::periods_run() const {
    return periods_.load();
}

void value_group::run(std::stop_token stop) {
    qsfpd::grid_schedule schedule(*clock_, period_, unit_, num_units_);
    bool first = true;
    while (clock_->sleep_until(schedule.next(), stop)) {
        std::vector<std::shared_ptr<dh_db_leaf_node>> due;
        {
            std::lock_guard lock(mutex_);
            if (!active_) {
                schedule.advance(clock_->now());
                continue;
            }
            due.reserve(nodes_.size());
            for (auto it = nodes_.begin(); it != nodes_.end();) {
                if (auto node = it->second.lock()) {
                    due.push_back(std::move(node));
                    ++it;
                } else {
                    it = nodes_.erase(it);
                }
            }
        }
        for (auto& node : due) {
            if (stop.stop_requested()) return;
            try {
                node->periodic_task(first);
            } catch (const std::exception& e) {
                MSG_LOG(msg_log::warning, "value_group")
                    << "Periodic task of " << node->get_path() << " failed: " << e.what();
            }
        }
        due.clear();
        first = false;
        periods_.fetch_add(1);
        schedule.advance(clock_->now());
    }
}

}  // namespace dh::api
