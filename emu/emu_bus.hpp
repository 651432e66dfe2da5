#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "clock.hpp"

namespace qsfpd::emu {

// What one cage (or the whole bus) has moved over the wire.
struct bus_counters {
    std::uint64_t transactions = 0;
    std::uint64_t reads = 0;
    std::uint64_t writes = 0;
    std::uint64_t nacks = 0;   // transfers the module did not acknowledge
    std::uint64_t errors = 0;  // transfers that failed otherwise (injected errno)
    std::uint64_t bytes = 0;   // data bytes, without address and offset bytes
    std::chrono::nanoseconds wire_time{0};
};

// The one simulated two-wire bus that all cages of a process share, so that bus load and the
// time-slot discipline of the daemon can be measured. Wire time counts every bit clock: start,
// address byte + ack, offset byte + ack, the repeated start and address of a combined read, each
// data byte + ack, stop. Start, repeated start and stop count one bit time each.
class emu_bus {
  public:
    explicit emu_bus(std::shared_ptr<clock> clk, unsigned speed_hz = 400'000,
                     std::size_t history = 256);

    // Registers a cage; the returned index names it in the counters.
    unsigned attach(std::string name);

    // Bit clocks of one transfer on the wire.
    static unsigned combined_read_bits(std::size_t data_bytes);
    static unsigned write_bits(std::size_t data_bytes);
    static unsigned nack_bits();  // start, address byte, no ack, stop

    enum class kind { read, write };
    // nack: the module did not answer, only start, address byte and stop went over the wire;
    // error: the whole transfer went over the wire but failed.
    enum class outcome { ok, nack, error };
    // Accounts one transfer of `cage`; returns its wire time.
    std::chrono::nanoseconds account(unsigned cage, kind k, std::size_t data_bytes,
                                     outcome result = outcome::ok);

    bus_counters counters(unsigned cage) const;
    bus_counters total() const;
    // Clock time of the cage's most recent accesses, oldest first (bounded by `history`).
    std::vector<clock::time_point> accesses(unsigned cage) const;
    unsigned speed_hz() const { return speed_hz_; }
    std::chrono::nanoseconds bit_time(unsigned bits) const;

    // Counters per cage and in total, for the control interface.
    std::string snapshot_json() const;

  private:
    struct cage_entry {
        std::string name;
        bus_counters counters;
        std::deque<clock::time_point> recent;
        // The same accesses in wall time, so a report can show where in the 100 ms grid they fell.
        std::deque<std::chrono::system_clock::time_point> recent_wall;
    };

    std::shared_ptr<clock> clock_;
    unsigned speed_hz_;
    std::size_t history_;
    mutable std::mutex mutex_;
    std::vector<cage_entry> cages_;
    bus_counters total_;
};

}  // namespace qsfpd::emu
