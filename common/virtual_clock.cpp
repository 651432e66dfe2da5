#include "virtual_clock.hpp"

#include <algorithm>

namespace qsfpd {

virtual_clock::virtual_clock(std::chrono::system_clock::time_point wall_start)
    : wall_start_(wall_start) {}

clock::time_point virtual_clock::now() const {
    std::lock_guard lock(mutex_);
    return now_;
}

std::chrono::system_clock::time_point virtual_clock::wall_now() const {
    std::lock_guard lock(mutex_);
    return wall_start_ +
           std::chrono::duration_cast<std::chrono::system_clock::duration>(now_.time_since_epoch());
}

bool virtual_clock::sleep_until(time_point deadline, std::stop_token stop) {
    std::unique_lock lock(mutex_);
    auto entry = deadlines_.insert(deadlines_.end(), deadline);
    changed_.notify_all();
    changed_.wait(lock, stop, [&] { return now_ >= deadline; });
    deadlines_.erase(entry);
    changed_.notify_all();
    return !stop.stop_requested();
}

void virtual_clock::advance(duration d) {
    std::lock_guard lock(mutex_);
    now_ += d;
    changed_.notify_all();
}

std::size_t virtual_clock::sleepers_locked() const {
    return static_cast<std::size_t>(std::count_if(deadlines_.begin(), deadlines_.end(),
                                                  [&](time_point t) { return t > now_; }));
}

std::size_t virtual_clock::sleepers() const {
    std::lock_guard lock(mutex_);
    return sleepers_locked();
}

bool virtual_clock::wait_for_sleepers(std::size_t count, std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return sleepers_locked() >= count; });
}

void virtual_clock::run_for(duration d, std::chrono::milliseconds settle) {
    std::unique_lock lock(mutex_);
    const time_point target = now_ + d;
    while (true) {
        auto next = std::min_element(deadlines_.begin(), deadlines_.end());
        if (next == deadlines_.end() || *next > target) break;
        // Every thread asleep now is expected asleep again after the step: the ones woken by it
        // once their work is done. A thread that ends instead costs one `settle` of real time.
        const std::size_t expected = deadlines_.size();
        now_ = std::max(now_, *next);
        changed_.notify_all();
        changed_.wait_for(lock, settle, [&] { return sleepers_locked() >= expected; });
    }
    now_ = target;
    changed_.notify_all();
}

}  // namespace qsfpd
