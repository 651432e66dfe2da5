#include "dh_session.hpp"

#include <algorithm>

#include "dh_db_node.hpp"

namespace {
std::atomic<std::uint64_t> next_session_id{1};
}

dh_session::dh_session() : id_(next_session_id.fetch_add(1, std::memory_order_relaxed)) {}

void dh_session::remember_subscription(const std::shared_ptr<dh_db_leaf_node>& node) {
    std::lock_guard lock(mutex_);
    std::erase_if(subscriptions_, [&](const auto& w) {
        auto live = w.lock();
        return !live || live == node;
    });
    subscriptions_.push_back(node);
}

void dh_session::forget_subscription(const std::shared_ptr<dh_db_leaf_node>& node) {
    std::lock_guard lock(mutex_);
    std::erase_if(subscriptions_, [&](const auto& w) {
        auto live = w.lock();
        return !live || live == node;
    });
}

void dh_session::close() {
    if (closed_.exchange(true)) return;
    std::vector<std::weak_ptr<dh_db_leaf_node>> nodes;
    {
        std::lock_guard lock(mutex_);
        nodes.swap(subscriptions_);
    }
    auto self = shared_from_this();
    for (auto& weak : nodes)
        if (auto node = weak.lock()) node->unsubscribe(self);
}
