#pragma once

#include "clock.hpp"

namespace qsfpd {

// Cages sharing one bus take turns on a 100 ms grid: the first instant is the next whole second
// of the steady clock plus unit * 100 / num_units ms (no offset when num_units is 0). A pass that
// overruns skips the missed instants instead of running late ones back to back, so the grid keeps
// its phase.
class grid_schedule {
  public:
    grid_schedule(const clock& clk, clock::duration period, unsigned unit, unsigned num_units);

    clock::time_point next() const { return next_; }
    // Moves to the first grid instant after `now` and returns it.
    clock::time_point advance(clock::time_point now);

    static std::chrono::milliseconds slot_offset(unsigned unit, unsigned num_units);

  private:
    clock::duration period_;
    clock::time_point next_;
};

}  // namespace qsfpd
