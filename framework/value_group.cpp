#include "value_group.hpp"

#include <vector>

#include "dh_error.hpp"
#include "grid_schedule.hpp"
#include "msg_log.hpp"

namespace dh::api {

value_group::value_group(std::chrono::milliseconds period, unsigned unit, unsigned num_units,
                         std::shared_ptr<qsfpd::clock> clock, bool active)
    : state_(std::make_shared<state>()) {
    state_->period = period;
    state_->unit = unit;
    state_->num_units = num_units;
    state_->clock = std::move(clock);
    state_->active = active;
    thread_ = std::jthread([s = state_](std::stop_token stop) { run(s, stop); });
}

value_group::~value_group() {
    thread_.request_stop();
    if (thread_.get_id() == std::this_thread::get_id()) {
        // Destroyed by a poll of our own thread: it cannot join itself. It holds its own share
        // of the state and leaves at the stop request.
        thread_.detach();
    } else if (thread_.joinable()) {
        thread_.join();
    }
}

void value_group::add_value(const std::shared_ptr<dh_db_leaf_node>& node, int index) {
    std::lock_guard lock(state_->mutex);
    state_->nodes.emplace(index, node);
}

std::size_t value_group::size() const {
    std::lock_guard lock(state_->mutex);
    return state_->nodes.size();
}

void value_group::activate() {
    std::lock_guard lock(state_->mutex);
    state_->active = true;
}

bool value_group::active() const {
    std::lock_guard lock(state_->mutex);
    return state_->active;
}

std::uint64_t value_group::periods_run() const {
    return state_->periods.load();
}

void value_group::run(const std::shared_ptr<state>& s, std::stop_token stop) {
    qsfpd::grid_schedule schedule(*s->clock, s->period, s->unit, s->num_units);
    bool first = true;
    while (s->clock->sleep_until(schedule.next(), stop)) {
        std::vector<std::shared_ptr<dh_db_leaf_node>> due;
        {
            std::lock_guard lock(s->mutex);
            if (!s->active) {
                schedule.advance(s->clock->now());
                continue;
            }
            due.reserve(s->nodes.size());
            for (auto it = s->nodes.begin(); it != s->nodes.end();) {
                if (auto node = it->second.lock()) {
                    due.push_back(std::move(node));
                    ++it;
                } else {
                    it = s->nodes.erase(it);
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
        s->periods.fetch_add(1);
        schedule.advance(s->clock->now());
    }
}

}  // namespace dh::api
