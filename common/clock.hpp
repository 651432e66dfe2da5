#pragma once

#include <chrono>
#include <memory>
#include <stop_token>

namespace qsfpd {

// Every wait in the daemon goes through a clock so that tests can run the 3 s insertion wait,
// the 100 ms poll grid and the value-group periods in virtual time.
class clock {
  public:
    using time_point = std::chrono::steady_clock::time_point;
    using duration = std::chrono::steady_clock::duration;

    virtual ~clock() = default;

    virtual time_point now() const = 0;
    // Wall time, used only to align schedules to whole seconds.
    virtual std::chrono::system_clock::time_point wall_now() const = 0;
    // Sleeps until the deadline; returns false early when a stop is requested.
    virtual bool sleep_until(time_point deadline, std::stop_token stop = {}) = 0;

    bool sleep_for(duration d, std::stop_token stop = {}) {
        return sleep_until(now() + d, std::move(stop));
    }

    // The process-wide real clock.
    static std::shared_ptr<clock> system();
};

}  // namespace qsfpd
