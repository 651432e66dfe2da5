#pragma once

#include <condition_variable>
#include <list>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

#include "clock.hpp"

namespace qsfpd {

// A clock that moves only when a test says so. Threads sleeping on it wake when the virtual
// time passes their deadline; `wait_for_sleepers` lets a test wait (in real time, bounded)
// until the threads under test have gone back to sleep before it moves time again.
class virtual_clock final : public clock {
  public:
    // The steady time starts at the same count as the wall time unless `steady_start` sets the
    // two apart (as on a machine whose wall clock was stepped).
    explicit virtual_clock(
        std::chrono::system_clock::time_point wall_start = std::chrono::system_clock::time_point{} +
                                                           std::chrono::hours(24 * 365 * 50),
        std::optional<time_point> steady_start = std::nullopt);

    time_point now() const override;
    std::chrono::system_clock::time_point wall_now() const override;
    bool sleep_until(time_point deadline, std::stop_token stop = {}) override;

    // Moves time forward in one jump.
    void advance(duration d);
    // Moves time forward deadline by deadline, waiting after each step until the woken threads
    // sleep again (or `settle` of real time passes), so periodic work runs once per period.
    void run_for(duration d, std::chrono::milliseconds settle = std::chrono::milliseconds(2000));
    // Waits in real time until at least `count` threads sleep with a deadline in the future.
    bool wait_for_sleepers(std::size_t count,
                           std::chrono::milliseconds limit = std::chrono::milliseconds(2000));
    std::size_t sleepers() const;

    ~virtual_clock() override;

    // Called when a thread that slept on this clock ends (from its thread-local exit hook).
    void thread_exited(std::thread::id id);

  private:
    std::size_t sleepers_locked() const;
    // Woken threads still working, and threads whose deadline passed but have not woken yet.
    bool settled_locked() const;

    mutable std::mutex mutex_;
    std::condition_variable_any changed_;
    time_point now_{};
    time_point steady_start_{};
    std::chrono::system_clock::time_point wall_start_;
    std::list<time_point> deadlines_;
    std::set<std::thread::id> busy_;  // woken and not asleep again yet
};

}  // namespace qsfpd
