#include "virtual_clock.hpp"

#include <algorithm>
#include <set>
#include <vector>

namespace qsfpd {
namespace {

// Clocks alive now, so that a thread ending after its clock was destroyed touches nothing.
std::mutex live_mutex;
std::set<virtual_clock*> live_clocks;

// Tells the clocks a thread slept on that it has ended, so time can move on without it.
struct thread_exit_hook {
    std::vector<virtual_clock*> clocks;
    ~thread_exit_hook() {
        const auto id = std::this_thread::get_id();
        std::lock_guard lock(live_mutex);
        for (auto* c : clocks)
            if (live_clocks.count(c)) c->thread_exited(id);
    }
};
thread_local thread_exit_hook exit_hook;

}  // namespace

virtual_clock::virtual_clock(std::chrono::system_clock::time_point wall_start,
                             std::optional<time_point> steady_start)
    : now_(steady_start.value_or(
          time_point{} + std::chrono::duration_cast<duration>(wall_start.time_since_epoch()))),
      steady_start_(now_),
      wall_start_(wall_start) {
    std::lock_guard lock(live_mutex);
    live_clocks.insert(this);
}

virtual_clock::~virtual_clock() {
    std::lock_guard lock(live_mutex);
    live_clocks.erase(this);
}

void virtual_clock::thread_exited(std::thread::id id) {
    std::lock_guard lock(mutex_);
    busy_.erase(id);
    changed_.notify_all();
}

bool virtual_clock::settled_locked() const {
    return busy_.empty() && std::none_of(deadlines_.begin(), deadlines_.end(),
                                         [&](time_point t) { return t <= now_; });
}

clock::time_point virtual_clock::now() const {
    std::lock_guard lock(mutex_);
    return now_;
}

std::chrono::system_clock::time_point virtual_clock::wall_now() const {
    std::lock_guard lock(mutex_);
    return wall_start_ +
           std::chrono::duration_cast<std::chrono::system_clock::duration>(now_ - steady_start_);
}

bool virtual_clock::sleep_until(time_point deadline, std::stop_token stop) {
    const auto id = std::this_thread::get_id();
    if (std::find(exit_hook.clocks.begin(), exit_hook.clocks.end(), this) == exit_hook.clocks.end())
        exit_hook.clocks.push_back(this);
    std::unique_lock lock(mutex_);
    busy_.erase(id);
    auto entry = deadlines_.insert(deadlines_.end(), deadline);
    changed_.notify_all();
    changed_.wait(lock, stop, [&] { return now_ >= deadline; });
    deadlines_.erase(entry);
    busy_.insert(id);
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
        // Threads woken by the previous step finish their work before time moves on.
        changed_.wait_for(lock, settle, [&] { return settled_locked(); });
        auto next = std::min_element(deadlines_.begin(), deadlines_.end());
        if (next == deadlines_.end() || *next > target) break;
        now_ = std::max(now_, *next);
        changed_.notify_all();
    }
    now_ = target;
    changed_.notify_all();
    changed_.wait_for(lock, settle, [&] { return settled_locked(); });
}

}  // namespace qsfpd
