#include "grid_schedule.hpp"

namespace qsfpd {

std::chrono::milliseconds grid_schedule::slot_offset(unsigned unit, unsigned num_units) {
    if (num_units == 0) return std::chrono::milliseconds(0);
    return std::chrono::milliseconds(static_cast<long long>(unit) * 100 / num_units);
}

grid_schedule::grid_schedule(const clock& clk, clock::duration period, unsigned unit,
                             unsigned num_units)
    : period_(period) {
    using namespace std::chrono;
    // The steady clock, not the wall clock: the cages' processes share it, and a wall clock
    // stepped by NTP must not move one cage's slot onto another's.
    const auto now = clk.now();
    const auto since_second = now.time_since_epoch() % seconds(1);
    next_ = now + (duration_cast<clock::duration>(seconds(1)) - since_second) +
            slot_offset(unit, num_units);
}

clock::time_point grid_schedule::advance(clock::time_point now) {
    next_ += period_;
    if (next_ <= now) {
        const auto missed = (now - next_) / period_ + 1;
        next_ += missed * period_;
    }
    return next_;
}

}  // namespace qsfpd
