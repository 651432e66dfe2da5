#include "gearbox_state.hpp"

#include <fmt/format.h>

#include "msg_log.hpp"

namespace qsfpd::gearbox {

namespace {

constexpr auto log_tag = "qsfp-gearbox";

std::string lane_path(const char* group, unsigned lane, const char* name) {
    return fmt::format("{}/lane/{}/{}", group, lane, name);
}

}  // namespace

std::optional<lane_bits> parse_lane_bits(std::string_view text) {
    if (text.size() != lane_count) return std::nullopt;
    lane_bits bits{};
    for (unsigned lane = 0; lane < lane_count; ++lane) {
        if (text[lane] != '0' && text[lane] != '1') return std::nullopt;
        bits[lane] = text[lane] == '1';
    }
    return bits;
}

std::string lane_bits_text(const lane_bits& bits) {
    std::string text;
    for (bool bit : bits)
        text += bit ? '1' : '0';
    return text;
}

std::shared_ptr<gearbox_state> gearbox_state::create(dh_db& db, const gearbox_values& initial) {
    auto state = std::make_shared<gearbox_state>(private_tag{}, initial);
    state->register_nodes(db);
    return state;
}

void gearbox_state::register_nodes(dh_db& db) {
    using namespace dh::api;
    const auto self = shared_from_this();
    const auto v = values();
    const std::string status = v.up ? "up" : "down";

    oper_status_ = status_value<std::string>::create(db, "data/operStatus", self, status);
    warm_started_ =
        status_value<bool>::create(db, "data/debug/isWarmStarted", self, v.warm_started);
    for (unsigned lane = 0; lane < lane_count; ++lane) {
        has_lock_[lane] = status_value<bool>::create(
            db, lane_path("data/debug/client", lane, "hasLock"), self, v.has_lock[lane]);
        has_link_[lane] = status_value<bool>::create(
            db, lane_path("data/debug/client", lane, "hasLink"), self, v.has_link[lane]);
    }

    // Each config node starts at (and resets to) the value given on the command line, so that
    // a read of it tells what is being served.
    auto keep = [this](auto node, const auto& initial) {
        node->set_value(initial);
        config_nodes_.push_back(node);
    };
    keep(config_param<&gearbox_state::set_oper_status>::create(
             db, "config/operStatus", self, std::vector<std::string>{"up", "down"}, status),
         status);
    keep(config_param<&gearbox_state::set_warm_started>::create(db, "config/warmStarted", self, {},
                                                                v.warm_started),
         v.warm_started);
    for (unsigned lane = 0; lane < lane_count; ++lane) {
        keep(config_param<&gearbox_state::set_has_lock>::create(
                 db, lane_path("config", lane, "hasLock"), self, bind_args(lane), {},
                 v.has_lock[lane]),
             v.has_lock[lane]);
        keep(config_param<&gearbox_state::set_has_link>::create(
                 db, lane_path("config", lane, "hasLink"), self, bind_args(lane), {},
                 v.has_link[lane]),
             v.has_link[lane]);
    }
}

gearbox_values gearbox_state::values() const {
    std::lock_guard lock(mutex_);
    return values_;
}

std::string gearbox_state::describe() const {
    const auto v = values();
    return fmt::format("operStatus {}, hasLock {}, hasLink {}, isWarmStarted {}",
                       v.up ? "up" : "down", lane_bits_text(v.has_lock), lane_bits_text(v.has_link),
                       v.warm_started);
}

template <class Node, class V>
void gearbox_state::serve(Node& node, const V& value, const V& was) {
    node.update(value);
    MSG_LOG(msg_log::info, log_tag)
        << node.get_path() << ": " << dh::api::to_json_text(was) << " -> "
        << dh::api::to_json_text(value) << " (" << describe() << ")";
}

// The node is updated after the state's lock is released: publishing takes the node's own lock,
// and the log line reads the state again.
void gearbox_state::set_oper_status(const std::string& status) {
    bool was;
    {
        std::lock_guard lock(mutex_);
        was = values_.up;
        values_.up = status == "up";
    }
    serve(*oper_status_, status, std::string(was ? "up" : "down"));
}

void gearbox_state::set_has_lock(unsigned lane, bool value) {
    bool was;
    {
        std::lock_guard lock(mutex_);
        was = std::exchange(values_.has_lock.at(lane), value);
    }
    serve(*has_lock_[lane], value, was);
}

void gearbox_state::set_has_link(unsigned lane, bool value) {
    bool was;
    {
        std::lock_guard lock(mutex_);
        was = std::exchange(values_.has_link.at(lane), value);
    }
    serve(*has_link_[lane], value, was);
}

void gearbox_state::set_warm_started(bool value) {
    bool was;
    {
        std::lock_guard lock(mutex_);
        was = std::exchange(values_.warm_started, value);
    }
    serve(*warm_started_, value, was);
}

}  // namespace qsfpd::gearbox
