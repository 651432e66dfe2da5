#pragma once

#include <array>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "dh/api/value_nodes.hpp"

namespace qsfpd::gearbox {

inline constexpr unsigned lane_count = 4;
using lane_bits = std::array<bool, lane_count>;

// What the gearbox reports: the values its data nodes serve.
struct gearbox_values {
    bool up = true;
    lane_bits has_lock{true, true, true, true};
    lane_bits has_link{true, true, true, true};
    bool warm_started = false;
    bool operator==(const gearbox_values&) const = default;
};

// "1101" (lane 0 first) as lane bits; nothing unless exactly four digits 0 or 1.
std::optional<lane_bits> parse_lane_bits(std::string_view text);
std::string lane_bits_text(const lane_bits& bits);

// The served state of a stand-in for the board's gearbox handler: the nodes qsfpd reads
// ("data/operStatus", "data/debug/isWarmStarted", "data/debug/client/lane/N/hasLock|hasLink")
// and, under "config/", a writable node for each of them so a test or an operator can change
// what is served while the program runs.
class gearbox_state : public std::enable_shared_from_this<gearbox_state> {
  public:
    // Registers the nodes in `db`; they live as long as the returned state.
    static std::shared_ptr<gearbox_state> create(dh_db& db, const gearbox_values& initial);

    gearbox_values values() const;
    // One line for the log: "operStatus up, hasLock 1111, hasLink 1111, isWarmStarted false".
    std::string describe() const;

    // The setters behind the config nodes.
    void set_oper_status(const std::string& status);
    void set_has_lock(unsigned lane, bool value);
    void set_has_link(unsigned lane, bool value);
    void set_warm_started(bool value);

    // Public for make_shared only; use create().
    struct private_tag {};
    gearbox_state(private_tag, const gearbox_values& initial) : values_(initial) {}

  private:
    void register_nodes(dh_db& db);
    // Sets the data node and logs the change; `was` is the value before it.
    template <class Node, class V>
    void serve(Node& node, const V& value, const V& was);

    mutable std::mutex mutex_;
    gearbox_values values_;

    std::shared_ptr<dh::api::status_value<std::string>> oper_status_;
    std::shared_ptr<dh::api::status_value<bool>> warm_started_;
    std::array<std::shared_ptr<dh::api::status_value<bool>>, lane_count> has_lock_;
    std::array<std::shared_ptr<dh::api::status_value<bool>>, lane_count> has_link_;
    // The config nodes are kept only so that the database's weak references stay valid.
    std::vector<std::shared_ptr<dh_db_leaf_node>> config_nodes_;
};

}  // namespace qsfpd::gearbox
