#include "emu_bus.hpp"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <stdexcept>

namespace qsfpd::emu {

namespace {
constexpr unsigned byte_with_ack = 9;
}

emu_bus::emu_bus(std::shared_ptr<clock> clk, unsigned speed_hz, std::size_t history)
    : clock_(std::move(clk)), speed_hz_(speed_hz), history_(history) {
    if (speed_hz_ == 0) throw std::invalid_argument("emu_bus: bus speed must not be 0");
}

unsigned emu_bus::attach(std::string name) {
    std::lock_guard lock(mutex_);
    cages_.push_back(cage_entry{std::move(name), {}, {}, {}});
    return static_cast<unsigned>(cages_.size() - 1);
}

unsigned emu_bus::combined_read_bits(std::size_t data_bytes) {
    // start, address+W, offset, repeated start, address+R, data..., stop
    return 1 + byte_with_ack + byte_with_ack + 1 + byte_with_ack +
           static_cast<unsigned>(data_bytes) * byte_with_ack + 1;
}

unsigned emu_bus::write_bits(std::size_t data_bytes) {
    // start, address+W, offset, data..., stop
    return 1 + byte_with_ack + byte_with_ack + static_cast<unsigned>(data_bytes) * byte_with_ack +
           1;
}

unsigned emu_bus::nack_bits() {
    return 1 + byte_with_ack + 1;
}

std::chrono::nanoseconds emu_bus::bit_time(unsigned bits) const {
    // Rounded to the nearest nanosecond; exact for the usual 100 kHz, 400 kHz and 1 MHz.
    const auto ns =
        (static_cast<std::uint64_t>(bits) * 1'000'000'000ULL + speed_hz_ / 2) / speed_hz_;
    return std::chrono::nanoseconds(ns);
}

std::chrono::nanoseconds emu_bus::account(unsigned cage, kind k, std::size_t data_bytes,
                                          outcome result) {
    const unsigned bits = result == outcome::nack ? nack_bits()
                          : k == kind::read       ? combined_read_bits(data_bytes)
                                                  : write_bits(data_bytes);
    const auto wire = bit_time(bits);
    const auto now = clock_->now();
    std::lock_guard lock(mutex_);
    auto& entry = cages_.at(cage);
    for (auto* c : {&entry.counters, &total_}) {
        ++c->transactions;
        (k == kind::read ? c->reads : c->writes) += 1;
        if (result == outcome::ok) c->bytes += data_bytes;
        if (result == outcome::nack) ++c->nacks;
        if (result == outcome::error) ++c->errors;
        c->wire_time += wire;
    }
    entry.recent.push_back(now);
    entry.recent_wall.push_back(clock_->wall_now());
    while (entry.recent.size() > history_) {
        entry.recent.pop_front();
        entry.recent_wall.pop_front();
    }
    return wire;
}

bus_counters emu_bus::counters(unsigned cage) const {
    std::lock_guard lock(mutex_);
    return cages_.at(cage).counters;
}

bus_counters emu_bus::total() const {
    std::lock_guard lock(mutex_);
    return total_;
}

std::vector<clock::time_point> emu_bus::accesses(unsigned cage) const {
    std::lock_guard lock(mutex_);
    const auto& r = cages_.at(cage).recent;
    return {r.begin(), r.end()};
}

std::string emu_bus::snapshot_json() const {
    std::lock_guard lock(mutex_);
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> w(buffer);
    auto counters_json = [&w](const bus_counters& c) {
        w.Key("transactions");
        w.Uint64(c.transactions);
        w.Key("reads");
        w.Uint64(c.reads);
        w.Key("writes");
        w.Uint64(c.writes);
        w.Key("nacks");
        w.Uint64(c.nacks);
        w.Key("errors");
        w.Uint64(c.errors);
        w.Key("bytes");
        w.Uint64(c.bytes);
        w.Key("wire_time_ns");
        w.Int64(c.wire_time.count());
    };
    w.StartObject();
    w.Key("speed_hz");
    w.Uint(speed_hz_);
    w.Key("total");
    w.StartObject();
    counters_json(total_);
    w.EndObject();
    w.Key("cages");
    w.StartArray();
    for (const auto& c : cages_) {
        w.StartObject();
        w.Key("name");
        w.String(c.name);
        counters_json(c.counters);
        w.Key("last_access_ns");
        if (c.recent.empty())
            w.Null();
        else
            w.Int64(std::chrono::duration_cast<std::chrono::nanoseconds>(
                        c.recent.back().time_since_epoch())
                        .count());
        // Wall time of the recent accesses as milliseconds within their second: a cage that keeps
        // its slot shows the same few values.
        w.Key("recent_access_ms_in_second");
        w.StartArray();
        for (const auto& t : c.recent_wall)
            w.Uint(static_cast<unsigned>(
                std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch())
                    .count() %
                1000));
        w.EndArray();
        w.EndObject();
    }
    w.EndArray();
    w.EndObject();
    return buffer.GetString();
}

}  // namespace qsfpd::emu
