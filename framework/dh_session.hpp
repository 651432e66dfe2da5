#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class dh_db_leaf_node;

// One client of the database: a connection of the server, or an in-process observer. Event
// nodes keep weak references to the sessions subscribed to them and hand each change over as
// one ready protocol line.
class dh_session : public std::enable_shared_from_this<dh_session> {
  public:
    dh_session();
    virtual ~dh_session() = default;
    dh_session(const dh_session&) = delete;
    dh_session& operator=(const dh_session&) = delete;

    std::uint64_t id() const { return id_; }

    // Called from any thread with a complete line ending in "\n"; must not block.
    virtual void deliver(std::shared_ptr<const std::string> line) = 0;
    virtual bool is_open() const { return !closed_; }

    // The nodes this session subscribed to, so that closing it leaves no subscription behind.
    void remember_subscription(const std::shared_ptr<dh_db_leaf_node>& node);
    void forget_subscription(const std::shared_ptr<dh_db_leaf_node>& node);
    void close();

  private:
    std::uint64_t id_;
    std::atomic<bool> closed_{false};
    std::mutex mutex_;
    std::vector<std::weak_ptr<dh_db_leaf_node>> subscriptions_;
};
