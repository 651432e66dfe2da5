#pragma once

// The node set the benchmarks serve: a cage's inventory and module status, then per-lane blocks
// of status values, constrained config params and computed volatile values, repeated until the
// wanted count is reached, so lookups and memory scale as they would with a full handler.

#include <unistd.h>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "dh/api/value_nodes.hpp"

namespace qsfpd::bench {

// The paths the load generator and the micro-benchmark address.
inline constexpr const char* stored_path = "data/lane/0/rxPower";
inline constexpr const char* volatile_path = "data/lane/0/laserTemperature";
inline constexpr const char* counter_path = "bench/counter";
inline constexpr const char* ticker_path = "bench/ticker";
inline constexpr const char* process_path = "bench/rss";

// A memory figure of this process (VmRSS, VmHWM, RssAnon, RssFile) in kB, -1 when /proc is not
// readable.
inline long proc_status_kb(const std::string& field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind(field + ":", 0) == 0) return std::atol(line.c_str() + field.size() + 1);
    }
    return -1;
}

inline std::string lane_path(std::uint32_t lane, const char* leaf) {
    return "data/lane/" + std::to_string(lane) + "/" + leaf;
}

// Stands in for a module handler: setters accept what the constraints let through and count
// the writes, getters compute a fresh number on every read as a register read would.
struct bench_owner : std::enable_shared_from_this<bench_owner> {
    std::atomic<std::uint64_t> reads{0};
    std::atomic<std::uint64_t> writes{0};
    std::shared_ptr<dh::api::status_value<std::int64_t>> ticker;

    double laser_temperature(std::uint32_t lane) {
        const auto n = reads.fetch_add(1, std::memory_order_relaxed);
        return 40.0 + 0.25 * lane + 0.5 * std::sin(static_cast<double>(n) * 1e-3);
    }
    double tec_current(std::uint32_t lane) {
        const auto n = reads.fetch_add(1, std::memory_order_relaxed);
        return 120.0 + lane + std::cos(static_cast<double>(n) * 1e-3);
    }
    double osnr(std::uint32_t lane) {
        const auto n = reads.fetch_add(1, std::memory_order_relaxed);
        return 28.0 - 0.01 * lane + 0.1 * std::sin(static_cast<double>(n) * 1e-2);
    }
    std::uint64_t fec_corrected(std::uint32_t lane) {
        return reads.fetch_add(1, std::memory_order_relaxed) * 7 + lane;
    }

    bool set_tx_enable(std::uint32_t, bool) { return count_write(); }
    bool set_frequency(std::uint32_t, std::uint32_t) { return count_write(); }
    bool set_output_power(std::uint32_t, double) { return count_write(); }
    bool set_admin_state(std::uint32_t, const std::string&) { return count_write(); }
    bool set_loopback(std::uint32_t, const std::string&) { return count_write(); }
    bool set_rx_threshold(std::uint32_t, double) { return count_write(); }
    bool set_low_power(bool) { return count_write(); }

    // Every accepted counter write is mirrored to the ticker status, so one set changes a
    // config param and a status value and both notification paths can be timed.
    void set_counter(std::int64_t value) {
        count_write();
        if (ticker) ticker->update(value);
    }

    dh::api::json_object process_info() {
        return {"{\"pid\":" + std::to_string(::getpid()) +
                ",\"vmRssKb\":" + std::to_string(proc_status_kb("VmRSS")) +
                ",\"vmHwmKb\":" + std::to_string(proc_status_kb("VmHWM")) +
                ",\"rssAnonKb\":" + std::to_string(proc_status_kb("RssAnon")) +
                ",\"rssFileKb\":" + std::to_string(proc_status_kb("RssFile")) + "}"};
    }

  private:
    bool count_write() {
        writes.fetch_add(1, std::memory_order_relaxed);
        return true;
    }
};

// Everything registered; the database refers to nodes weakly, so this keeps them alive.
struct node_set {
    std::shared_ptr<bench_owner> owner;
    std::vector<std::shared_ptr<dh_db_leaf_node>> nodes;
};

inline node_set populate(dh_db& db, std::size_t wanted) {
    using namespace dh::api;
    node_set set{std::make_shared<bench_owner>(), {}};
    auto& owner = set.owner;
    auto& nodes = set.nodes;
    auto keep = [&](auto node) { nodes.push_back(std::move(node)); };

    // Benchmark plumbing: the timed config param, its status mirror, the process report.
    owner->ticker = status_value<std::int64_t>::create(db, ticker_path, owner, std::int64_t{0});
    keep(owner->ticker);
    auto counter = config_param<&bench_owner::set_counter>::create(
        db, counter_path, owner, min_max_range_t<std::int64_t>{0, std::int64_t{1} << 52});
    counter->set_value(0);
    keep(counter);
    keep(command<&bench_owner::process_info>::create(db, process_path, owner));

    const std::pair<const char*, const char*> inventory[] = {
        {"vendorName", "ACME PHOTONICS"},
        {"vendorPn", "QDD-400G-ZR-S"},
        {"vendorSn", "AP2419K0Q7731"},
        {"vendorRev", "B2"},
        {"dateCode", "241102"},
        {"vendorOui", "00:1b:21"},
        {"connectorType", "LC"},
        {"identifier", "QSFP-DD"},
        {"mediaType", "SMF"},
        {"firmwareVersion", "4.7.12"},
        {"hardwareVersion", "2.1"},
        {"cleiCode", "WOMLK00ARA"},
    };
    for (const auto& [name, value] : inventory)
        keep(status_value<std::string>::create(db, std::string("data/inventory/") + name, owner,
                                               std::string(value)));
    keep(status_value<std::string>::create(db, "data/module/state", owner, std::string("ready")));
    keep(status_value<bool>::create(db, "data/module/present", owner, true));
    keep(status_value<std::int32_t>::create(db, "data/module/alarmSeverity", owner, 0));
    keep(status_value<double>::create(db, "data/module/temperature", owner, 43.5));
    keep(status_value<double>::create(db, "data/module/supplyVoltage", owner, 3.297));
    keep(status_value<std::uint32_t>::create(db, "data/module/laneCount", owner, 8u));
    auto low_power = config_param<&bench_owner::set_low_power>::create(db, "data/module/lowPower",
                                                                       owner, {}, false);
    low_power->set_value(false);
    keep(low_power);

    // One lane's nodes; `lane` is bound to the owner's getters and setters.
    using lane_node = void (*)(node_set&, dh_db&, std::uint32_t);
    static constexpr lane_node per_lane[] = {
        [](node_set& s, dh_db& d, std::uint32_t l) {
            s.nodes.push_back(status_value<double>::create(d, lane_path(l, "rxPower"), s.owner,
                                                           -3.25 - 0.01 * l));
        },
        [](node_set& s, dh_db& d, std::uint32_t l) {
            s.nodes.push_back(
                status_value<double>::create(d, lane_path(l, "txPower"), s.owner, 0.75 + 0.01 * l));
        },
        [](node_set& s, dh_db& d, std::uint32_t l) {
            s.nodes.push_back(
                status_value<double>::create(d, lane_path(l, "txBias"), s.owner, 61.2 + 0.1 * l));
        },
        [](node_set& s, dh_db& d, std::uint32_t l) {
            s.nodes.push_back(
                status_value<double>::create(d, lane_path(l, "preFecBer"), s.owner, 1.3e-5));
        },
        [](node_set& s, dh_db& d, std::uint32_t l) {
            s.nodes.push_back(status_value<bool>::create(d, lane_path(l, "rxLos"), s.owner, false));
        },
        [](node_set& s, dh_db& d, std::uint32_t l) {
            s.nodes.push_back(
                status_value<bool>::create(d, lane_path(l, "txFault"), s.owner, false));
        },
        [](node_set& s, dh_db& d, std::uint32_t l) {
            s.nodes.push_back(
                status_value<bool>::create(d, lane_path(l, "cdrLol"), s.owner, false));
        },
        [](node_set& s, dh_db& d, std::uint32_t l) {
            s.nodes.push_back(
                status_value<std::int32_t>::create(d, lane_path(l, "alarmSeverity"), s.owner, 0));
        },
        [](node_set& s, dh_db& d, std::uint32_t l) {
            s.nodes.push_back(status_value<std::string>::create(d, lane_path(l, "operState"),
                                                                s.owner, std::string("up")));
        },
        [](node_set& s, dh_db& d, std::uint32_t l) {
            auto n = config_param<&bench_owner::set_tx_enable>::create(
                d, lane_path(l, "txEnable"), s.owner, bind_args(l), {}, true);
            n->set_value(true);
            s.nodes.push_back(n);
        },
        [](node_set& s, dh_db& d, std::uint32_t l) {
            auto n = config_param<&bench_owner::set_frequency>::create(
                d, lane_path(l, "frequency"), s.owner, bind_args(l),
                min_max_grid_range_t<std::uint32_t>{191'300'000, 196'100'000, "6.25 GHz"},
                193'100'000u);
            n->set_value(193'100'000u + 50'000u * (l % 64));
            s.nodes.push_back(n);
        },
        [](node_set& s, dh_db& d, std::uint32_t l) {
            auto n = config_param<&bench_owner::set_output_power>::create(
                d, lane_path(l, "targetOutputPower"), s.owner, bind_args(l),
                min_max_range_t<double>{-15.0, 4.0}, 0.0);
            n->set_value(-1.5);
            s.nodes.push_back(n);
        },
        [](node_set& s, dh_db& d, std::uint32_t l) {
            auto n = config_param<&bench_owner::set_rx_threshold>::create(
                d, lane_path(l, "rxPowerHighThreshold"), s.owner, bind_args(l),
                min_max_range_t<double>{-20.0, 8.0}, 2.0);
            n->set_value(2.0);
            s.nodes.push_back(n);
        },
        [](node_set& s, dh_db& d, std::uint32_t l) {
            auto n = config_param<&bench_owner::set_admin_state>::create(
                d, lane_path(l, "adminState"), s.owner, bind_args(l),
                std::vector<std::string>{"up", "down", "maintenance"}, std::string("up"));
            n->set_value("up");
            s.nodes.push_back(n);
        },
        [](node_set& s, dh_db& d, std::uint32_t l) {
            auto n = config_param<&bench_owner::set_loopback>::create(
                d, lane_path(l, "loopback"), s.owner, bind_args(l),
                std::vector<std::string>{"none", "host", "media"}, std::string("none"));
            n->set_value("none");
            s.nodes.push_back(n);
        },
        [](node_set& s, dh_db& d, std::uint32_t l) {
            s.nodes.push_back(volatile_value<&bench_owner::laser_temperature>::create(
                d, lane_path(l, "laserTemperature"), s.owner, std::uint32_t{l}));
        },
        [](node_set& s, dh_db& d, std::uint32_t l) {
            s.nodes.push_back(volatile_value<&bench_owner::tec_current>::create(
                d, lane_path(l, "tecCurrent"), s.owner, std::uint32_t{l}));
        },
        [](node_set& s, dh_db& d, std::uint32_t l) {
            s.nodes.push_back(volatile_value<&bench_owner::osnr>::create(
                d, lane_path(l, "osnr"), s.owner, std::uint32_t{l}));
        },
        [](node_set& s, dh_db& d, std::uint32_t l) {
            s.nodes.push_back(volatile_value<&bench_owner::fec_corrected>::create(
                d, lane_path(l, "fecCorrected"), s.owner, std::uint32_t{l}));
        },
    };
    for (std::uint32_t lane = 0; nodes.size() < wanted; ++lane) {
        for (const auto make : per_lane) {
            if (nodes.size() >= wanted) break;
            make(set, db, lane);
        }
    }
    return set;
}

// Gives every measured status value (the doubles and alarm severities a handler polls) `rounds`
// changes, so memory includes the change histories hours of polling leave behind. Inventory,
// flags and configuration stay as registered, as they would.
inline void age(node_set& set, int rounds) {
    using namespace dh::api;
    for (int round = 1; round <= rounds; ++round) {
        for (const auto& node : set.nodes) {
            if (auto* d = dynamic_cast<status_value<double>*>(node.get())) {
                d->update(d->last_value().value_or(0.0) + 0.01);
            } else if (auto* i = dynamic_cast<status_value<std::int32_t>*>(node.get())) {
                i->update(round % 3);
            }
        }
    }
}

}  // namespace qsfpd::bench
