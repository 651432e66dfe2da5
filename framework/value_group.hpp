#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "clock.hpp"
#include "dh_db_node.hpp"

namespace dh::api {

// Calls periodic_task of its nodes once per period on the cages' staggered grid: the first
// instant is the next whole second plus unit * 100 / num_units ms. Nodes are held weakly and
// visited in index order; the group's own thread stops when the group is destroyed. A group made
// inactive keeps its schedule but visits nothing until activate(): a handler fills its group
// first, so that no value is polled before every node it depends on exists.
class value_group {
  public:
    value_group(std::chrono::milliseconds period, unsigned unit, unsigned num_units,
                std::shared_ptr<qsfpd::clock> clock = qsfpd::clock::system(), bool active = true);
    ~value_group();
    value_group(const value_group&) = delete;
    value_group& operator=(const value_group&) = delete;

    void add_value(const std::shared_ptr<dh_db_leaf_node>& node, int index = 0);
    std::size_t size() const;
    void activate();
    bool active() const;
    std::uint64_t periods_run() const;

  private:
    // What the polling thread uses. It owns a share: a node's poll may drop the last reference
    // to the handler that owns this group, destroying the group on its own thread, and the
    // thread must be able to finish its pass and leave safely then.
    struct state {
        std::chrono::milliseconds period;
        unsigned unit;
        unsigned num_units;
        std::shared_ptr<qsfpd::clock> clock;
        mutable std::mutex mutex;
        std::multimap<int, std::weak_ptr<dh_db_leaf_node>> nodes;
        bool active;  // guarded by mutex
        std::atomic<std::uint64_t> periods{0};
    };
    static void run(const std::shared_ptr<state>& s, std::stop_token stop);

    std::shared_ptr<state> state_;
    std::jthread thread_;
};

}  // namespace dh::api
