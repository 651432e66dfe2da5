// Bus cost of one steady-state monitoring cycle of a four-lane optical handler on the emulated
// bus at 400 kHz: the SFF-8636 handler for an SFF-8636 profile, the CMIS one for a CMIS profile.
// Measured: the plain 100 ms cycle, the cycle in which the once-a-second value group polls every
// polled node as well (once with the real value group in virtual time, once with the polls
// called right after the cycle), the same fields read one accessor each, and the cycle after a
// client's read of another page (so it starts with a page select). Counters are deltas
// around the measured slot only; a read hook on the module counts the reads of the latched flags.
// Exits 2 when a cycle misses the goal, 1 when the set-up fails.
//
// Minimal read set, the bytes the handler's decisions and published values need:
// - SFF-8636: lower page bytes 3..57 (latched flags, module monitors, channel monitors), 55 bytes.
// - CMIS, 4 lanes: lower page byte 3 (module state), 8..11 (latched module flags, one block as
//   they clear on read), 14..15 (temperature); page 11h 135..152 (latched lane flags, likewise
//   one block) and per lane in use TX power (154+2n), TX bias (170+2n), RX power (186+2n):
//   1 + 4 + 2 + 18 + 24 = 49 bytes.
// - Coherent (400ZR, ZR+), 1 media lane: lower page 3, 8..11, 14..15 and page 11h 135..152 and
//   lane 1's monitors as above (31 bytes), plus the counters behind the per-second rates, read once
//   a second each in passes of their own: FEC PM page 34h 128..179 (52 bytes) or the client PM of
//   four host lanes (128 bytes): 159 bytes in the heaviest pass.
// Goal: the handler's cycle moves at most 1.5 x those bytes, in at most 2 (SFF-8636) or 3 (CMIS,
// which may have to select page 11h) transactions, and reads each latched flag exactly once. A
// coherent cycle (which selects two more pages) may take 7 transactions and must stay within half
// of the cage's 12.5 ms slot of wire time.

#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "cage_emulator.hpp"
#include "emu_bus.hpp"
#include "grid_schedule.hpp"
#include "module_profile.hpp"
#include "msg_log.hpp"
#include "qsfp_dd_acacia_1lane_device_handler.hpp"
#include "qsfp_dd_cmis5_1lane_hpower_device_handler.hpp"
#include "qsfp_dd_optical_4lane_device_handler.hpp"
#include "qsfp_device.hpp"
#include "qsfp_optical_4lane_device_handler.hpp"
#include "qsfp_reg_map.hpp"
#include "virtual_clock.hpp"

namespace {

using namespace std::chrono_literals;
using qsfpd::cage::qsfp_reg_map;
using qsfpd::emu::bus_counters;
using qsfpd::emu::page_id;

constexpr unsigned bus_speed_hz = 400'000;
constexpr unsigned unit = 3;
constexpr unsigned num_units = 8;
constexpr auto poll_period = 100ms;
constexpr auto slot = std::chrono::microseconds(12'500);  // 100 ms shared by 8 cages
// A combined read puts three bytes besides the data on the wire: address+W, offset, address+R;
// a write two: address+W, offset.
constexpr unsigned protocol_bytes_per_read = 3;
constexpr unsigned protocol_bytes_per_write = 2;

// One latched flag byte; a cycle must read each exactly once (the read clears it).
struct latched_site {
    page_id page;  // {} for the lower page
    std::uint8_t byte;
};
constexpr std::size_t latched_sites = 2;

struct cost {
    std::uint64_t transactions = 0;
    std::uint64_t reads = 0;
    std::uint64_t writes = 0;
    std::uint64_t bytes = 0;
    std::uint64_t failed = 0;
    std::chrono::nanoseconds wire{0};
    std::array<unsigned, latched_sites> flag_reads{};

    bool same_traffic(const cost& o) const {
        return transactions == o.transactions && bytes == o.bytes && flag_reads == o.flag_reads;
    }
};

// What differs between the two handler families: the handler, what a cycle must at least read,
// where the temperature is, which bytes hold latched flags, and the baseline's accessors.
struct plan {
    const char* handler;
    unsigned goal_transactions;
    unsigned minimal_bytes;
    const char* minimal_set;
    std::uint8_t temperature_byte;  // lower page, big-endian, 1/256 degC
    std::array<latched_site, latched_sites> latched;
    std::function<void(qsfp_reg_map&, unsigned lanes)> baseline;
    std::chrono::nanoseconds goal_wire = std::chrono::nanoseconds::max();

    unsigned goal_bytes() const { return minimal_bytes * 3 / 2; }
    bool meets_goal(const cost& c) const {
        for (const unsigned n : c.flag_reads)
            if (n != 1) return false;
        return c.failed == 0 && c.transactions <= goal_transactions && c.bytes <= goal_bytes() &&
               c.wire <= goal_wire;
    }
};

const plan sff8636_plan{
    .handler = "qsfp_optical_4lane_device_handler",
    .goal_transactions = 2,
    .minimal_bytes = 57 - 3 + 1,
    .minimal_set = "lower page bytes 3..57",
    .temperature_byte = 22,
    // Latched LOS (byte 3) and latched temperature flags (byte 6).
    .latched = {{{{}, 3}, {{}, 6}}},
    .baseline =
        [](qsfp_reg_map& regs, unsigned lanes) {
            regs.get_int_flags();
            regs.get_temperature();
            regs.get_supply_voltage();
            for (unsigned lane = 0; lane < lanes; ++lane) {
                regs.get_ch_rx_pwr(lane);
                regs.get_ch_tx_pwr(lane);
                regs.get_ch_tx_bias(lane);
            }
        },
};

const plan cmis_plan{
    .handler = "qsfp_dd_optical_4lane_device_handler",
    .goal_transactions = 3,
    .minimal_bytes = 1 + 4 + 2 + 18 + 3 * 2 * 4,
    .minimal_set = "lower 3, 8..11, 14..15; page 11h 135..152, per lane TX power, bias, RX power",
    .temperature_byte = 14,
    // Latched temperature and Vcc flags (lower byte 9), latched TX fault (page 11h byte 135).
    .latched = {{{{}, 9}, {{0, 0x11}, 135}}},
    .baseline =
        [](qsfp_reg_map& regs, unsigned lanes) {
            namespace fields = qsfpd::cage::fields;
            regs.get_dd_mod_state();
            regs.read_raw(fields::cm("module_flags"));
            regs.get_dd_temperature();
            regs.read_raw(fields::cm("lane_flags"));
            for (unsigned lane = 0; lane < lanes; ++lane) {
                regs.get_dd_ch_tx_pwr(lane);
                regs.get_dd_ch_tx_bias(lane);
                regs.get_dd_ch_rx_pwr(lane);
            }
        },
};

const plan coherent_plan{
    .handler = "coherent (Acacia for CMIS 4, CMIS 5 otherwise)",
    // Lower page, page 11h, a counter page and page 35h (RX signal power): a read each, and a
    // page select for each upper page.
    .goal_transactions = 7,
    .minimal_bytes = 1 + 4 + 2 + 18 + 3 * 2 + 128,
    .minimal_set = "the CMIS set of one lane and, once a second each, FEC or client PM",
    .temperature_byte = 14,
    .latched = {{{{}, 9}, {{0, 0x11}, 135}}},
    .baseline =
        [](qsfp_reg_map& regs, unsigned /*lanes*/) {
            namespace fields = qsfpd::cage::fields;
            regs.get_dd_mod_state();
            regs.read_raw(fields::cm("module_flags"));
            regs.get_dd_temperature();
            regs.read_raw(fields::cm("lane_flags"));
            regs.get_dd_ch_tx_pwr(0);
            regs.get_dd_ch_tx_bias(0);
            regs.get_dd_ch_rx_pwr(0);
            regs.get_dd_fec_total_bits();
            regs.get_dd_fec_corrected_bits();
            regs.get_dd_fec_uncorrected_blocks();
            for (unsigned lane = 0; lane < 4; ++lane) {
                regs.get_dd_tx_bits_pm(lane);
                regs.get_dd_tx_corr_bits_pm(lane);
                regs.get_dd_tx_frames_pm(lane);
                regs.get_dd_tx_uncorr_frames_pm(lane);
            }
        },
    .goal_wire = std::chrono::microseconds(12'500) / 2,
};

// The handler as the manager's factory builds it, started, with its lane count.
struct built_handler {
    std::shared_ptr<qsfp_device_handler> handler;
    unsigned lanes = 0;
};

template <class Handler>
built_handler build(dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device,
                    std::shared_ptr<qsfp_reg_map> regs, std::shared_ptr<qsfpd::clock> clock) {
    auto vendor = regs->get_vendor_name();
    auto part_number = regs->get_part_number();
    auto handler = std::make_shared<Handler>(
        db, std::move(device), "", std::move(regs), std::move(vendor), std::move(part_number),
        "bench part", "bench", qsfp_device_handler::qsfp_flags_s{}, unit, num_units,
        std::move(clock));
    handler->start();
    const unsigned lanes = handler->lane_count();
    return {std::move(handler), lanes};
}

void print_row(const plan& p, const char* label, const cost& c, bool judged) {
    const double wire_us = std::chrono::duration<double, std::micro>(c.wire).count();
    std::string flags;
    for (const unsigned n : c.flag_reads)
        flags += (flags.empty() ? "" : "/") + std::to_string(n);
    std::printf("%-44s %6llu %7llu %7llu %9.1f %7.1f %7s  %s\n", label,
                static_cast<unsigned long long>(c.transactions),
                static_cast<unsigned long long>(c.bytes),
                static_cast<unsigned long long>(c.bytes + protocol_bytes_per_read * c.reads +
                                                protocol_bytes_per_write * c.writes),
                wire_us, 100.0 * wire_us / std::chrono::duration<double, std::micro>(slot).count(),
                flags.c_str(),
                !judged           ? ""
                : p.meets_goal(c) ? "goal met"
                                  : "GOAL MISSED");
}

int fail(const char* what) {
    std::fprintf(stderr, "monitoring_cycle: %s\n", what);
    return 1;
}

}  // namespace

int main(int argc, char* argv[]) {
    const std::string profile_name = argc > 1 ? argv[1] : "qsfp28_100g_lr4";
    msg_log::init({.max_severity = msg_log::warning, .to_stderr = true, .to_syslog = false});

    // A root of our own: no platform marker of this machine changes what the handler does.
    const auto root = std::filesystem::temp_directory_path() /
                      ("qsfpd-monitoring-bench-" + std::to_string(::getpid()));
    std::filesystem::create_directories(root);
    ::setenv("QSFPD_ROOT", root.c_str(), 1);
    struct remove_root {
        std::filesystem::path path;
        ~remove_root() { std::filesystem::remove_all(path); }
    } cleanup{root};

    auto clock = std::make_shared<qsfpd::virtual_clock>();
    auto bus = std::make_shared<qsfpd::emu::emu_bus>(clock, bus_speed_hz);
    auto cage = std::make_shared<qsfpd::emu::cage_emulator>(clock, bus, "qsfp3");
    auto profile = qsfpd::emu::module_profile::load_named(profile_name);
    const plan* chosen = nullptr;
    switch (profile.family) {
        case qsfpd::emu::module_family::sff8636:
            chosen = &sff8636_plan;
            break;
        case qsfpd::emu::module_family::cmis:
            chosen = profile.coherent ? &coherent_plan : &cmis_plan;
            break;
        default:
            return fail("no four-lane optical handler for this profile's module family");
    }
    const plan& p = *chosen;
    const auto settle = profile.i2c_not_ready + profile.power_up;
    cage->insert(std::move(profile));
    clock->run_for(settle);

    // Every host read that covers a latched flag byte, from any thread.
    std::array<std::atomic<unsigned>, latched_sites> flag_reads{};
    for (std::size_t i = 0; i < latched_sites; ++i)
        cage->module()->on_read(p.latched[i].page, p.latched[i].byte, p.latched[i].byte,
                                [&count = flag_reads[i]](page_id, std::uint8_t) { ++count; });

    auto device = std::make_shared<qsfpd::cage::qsfp_device>("qsfp3", cage);
    auto regs = std::make_shared<qsfp_reg_map>(*device);
    const unsigned cage_index = cage->bus_index();

    dh_db db;
    built_handler built;
    if (&p == &coherent_plan)
        built = regs->get_cmis_revision_major() >= 5
                    ? build<qsfp_dd_cmis5_1lane_hpower_device_handler>(db, device, regs, clock)
                    : build<qsfp_dd_acacia_1lane_device_handler>(db, device, regs, clock);
    else if (&p == &cmis_plan)
        built = build<qsfp_dd_optical_4lane_device_handler>(db, device, regs, clock);
    else
        built = build<qsfp_optical_4lane_device_handler>(db, device, regs, clock);
    auto handler = std::move(built.handler);
    const unsigned lanes = built.lanes;
    // The value group's thread sleeps on the virtual clock before time moves.
    if (!clock->wait_for_sleepers(1)) return fail("the value group did not start");

    // A measured window opens at a mark and closes with the difference since it.
    struct mark {
        bus_counters bus;
        std::array<unsigned, latched_sites> flags{};
    };
    auto take_mark = [&] {
        mark m{bus->counters(cage_index)};
        for (std::size_t i = 0; i < latched_sites; ++i)
            m.flags[i] = flag_reads[i].load();
        return m;
    };
    auto since = [&](const mark& m) {
        const auto now = bus->counters(cage_index);
        cost c{now.transactions - m.bus.transactions,
               now.reads - m.bus.reads,
               now.writes - m.bus.writes,
               now.bytes - m.bus.bytes,
               (now.nacks - m.bus.nacks) + (now.errors - m.bus.errors),
               now.wire_time - m.bus.wire_time};
        for (std::size_t i = 0; i < latched_sites; ++i)
            c.flag_reads[i] = flag_reads[i].load() - m.flags[i];
        return c;
    };

    // The manager's poll grid of this cage; the value group runs on the same grid once a second.
    qsfpd::grid_schedule passes(*clock, poll_period, unit, num_units);
    const auto offset = qsfpd::grid_schedule::slot_offset(unit, num_units);
    auto value_group_due_at = [&](qsfpd::clock::time_point t) {
        const auto wall = clock->wall_now() + (t - clock->now());
        return wall.time_since_epoch() % std::chrono::seconds(1) == offset;
    };
    // Time to just before the next pass; the mark there opens the measured window.
    auto to_slot_edge = [&] {
        clock->run_for(passes.next() - clock->now() - 1us);
        return take_mark();
    };
    // Into the slot: a value group due now runs (and finishes) before the caller goes on.
    auto enter_slot = [&] { clock->run_for(1us); };
    auto leave_slot = [&] { passes.advance(clock->now()); };
    auto plain_pass = [&] {
        to_slot_edge();
        enter_slot();
        handler->run_periodic_tasks();
        leave_slot();
    };

    // Steady state: three seconds of cycles, so the value group has polled (its first, forced
    // poll included) and every node has a value.
    for (int i = 0; i < 30; ++i)
        plain_pass();
    if (!handler->get_dh_ready()) return fail("the handler is not ready");
    std::vector<std::shared_ptr<dh_db_leaf_node>> polled;
    for (auto& entry : db.list())
        if (entry.node->kind() == "polled volatile value") polled.push_back(entry.node);
    if (polled.empty()) return fail("the handler has no polled nodes");
    for (const auto& node : polled)
        if (node->get_may_block()) return fail("a polled node has not been polled yet");

    auto temperature = [&] {
        return std::stod(db.lookup("data/temperature")->get_text("data/temperature"));
    };

    // One second of passes from just after the value group's: the nine plain cycles, then the
    // one the value group joins.
    while (!value_group_due_at(passes.next() - poll_period))
        plain_pass();
    cost plain, with_group;
    int plain_cycles = 0, group_cycles = 0;
    bool plain_uniform = true;
    double marker = 0;
    for (int i = 0; i < 10; ++i) {
        const bool group_now = value_group_due_at(passes.next());
        const bool group_next = value_group_due_at(passes.next() + poll_period);
        // The cycle before the value group's takes a marker temperature, well beyond the
        // filter's step, into its snapshot: the value group publishing it proves that it polled
        // inside the measured window.
        if (group_next) {
            marker = std::round(temperature()) + 10.0;
            const auto raw = static_cast<std::uint16_t>(marker * 256);
            cage->module()->stick(
                {}, p.temperature_byte,
                {static_cast<std::uint8_t>(raw >> 8), static_cast<std::uint8_t>(raw & 0xff)});
        }
        const auto before = to_slot_edge();
        const double temperature_before = temperature();
        enter_slot();
        handler->run_periodic_tasks();
        const cost c = since(before);
        leave_slot();
        if (group_now) {
            if (temperature_before == marker || temperature() != marker)
                return fail("the value group did not poll in its slot");
            cage->module()->unstick_all();
            with_group = c;
            ++group_cycles;
        } else {
            if (plain_cycles > 0 && !c.same_traffic(plain)) plain_uniform = false;
            if (plain_cycles == 0 || c.wire > plain.wire) plain = c;
            ++plain_cycles;
        }
    }
    if (group_cycles != 1 || plain_cycles != 9) return fail("the value group missed its slot");

    // The other order of the daemon's two threads: the cycle first, then every polled node.
    while (value_group_due_at(passes.next()))
        plain_pass();
    cost polls_after;
    {
        const auto before = to_slot_edge();
        enter_slot();
        handler->run_periodic_tasks();
        for (const auto& node : polled)
            node->periodic_task(false);
        polls_after = since(before);
        leave_slot();
    }

    // A client's read of another page between two cycles (data/wavelength: CMIS page 01h,
    // SFF-8636 page 00h): the next cycle starts with whatever page select its reads need.
    while (value_group_due_at(passes.next()))
        plain_pass();
    cost after_other_page;
    {
        const auto wavelength = db.lookup("data/wavelength");
        if (!wavelength) return fail("the handler has no data/wavelength");
        wavelength->get_text("data/wavelength");
        const auto before = to_slot_edge();
        enter_slot();
        handler->run_periodic_tasks();
        after_other_page = since(before);
        leave_slot();
    }

    // The same information one accessor per field, in a slot of its own.
    while (value_group_due_at(passes.next()))
        plain_pass();
    cost naive;
    {
        const auto before = to_slot_edge();
        enter_slot();
        p.baseline(*regs, lanes);
        naive = since(before);
        leave_slot();
    }

    const bool ok = plain_uniform && p.meets_goal(plain) && p.meets_goal(with_group) &&
                    p.meets_goal(polls_after) && p.meets_goal(after_other_page);
    std::printf("%s, %s (%u lanes), cage %u of %u, bus at %u kHz, %zu polled nodes\n",
                profile_name.c_str(), p.handler, lanes, unit, num_units, bus_speed_hz / 1000,
                polled.size());
    std::printf(
        "goal: <= %u transactions and <= %u data bytes (1.5 x the %u bytes of %s), each "
        "latched flag read once\n",
        p.goal_transactions, p.goal_bytes(), p.minimal_bytes, p.minimal_set);
    if (p.goal_wire != std::chrono::nanoseconds::max())
        std::printf("      and <= %.2f ms of wire time per pass (half the cage's slot)\n",
                    std::chrono::duration<double, std::milli>(p.goal_wire).count());
    std::printf("%-44s %6s %7s %7s %9s %7s %7s\n", "cycle", "trans", "data B", "wire B", "wire us",
                "slot %", "flags");
    print_row(p, "(a) cycle alone (worst of 9 in a second)", plain, true);
    print_row(p, "(b) cycle + value group (real, in its slot)", with_group, true);
    print_row(p, "(b) cycle, then periodic_task of each node", polls_after, true);
    print_row(p, "(c) one accessor per field (baseline)", naive, false);
    print_row(p, "(d) cycle after a read of another page", after_other_page, true);
    const auto per_second = 9 * plain.wire + with_group.wire;
    std::printf("per second: %.2f ms of wire time, %.1f %% of this cage's ten slots\n",
                std::chrono::duration<double, std::milli>(per_second).count(),
                100.0 * std::chrono::duration<double>(per_second).count() /
                    (10 * std::chrono::duration<double>(slot).count()));
    std::string sites;
    for (const auto& site : p.latched) {
        char text[32];
        if (site.page.page == 0)
            std::snprintf(text, sizeof text, "lower byte %u", site.byte);
        else
            std::snprintf(text, sizeof text, "page %02Xh byte %u", site.page.page, site.byte);
        sites += (sites.empty() ? "" : ", ") + std::string(text);
    }
    std::printf("flags: host reads that covered each latched flag byte (%s)\n", sites.c_str());
    std::printf(
        "wire time: %u bit clocks per data byte (8 + ack) plus 30 per combined read "
        "(start, address+W, offset, repeated start, address+R, stop) at %u kHz\n",
        9u, bus_speed_hz / 1000);
    if (!plain_uniform) std::printf("the plain cycles of the second did not all cost the same\n");

    handler.reset();
    return ok ? 0 : 2;
}
