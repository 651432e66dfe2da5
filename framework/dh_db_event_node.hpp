#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <vector>

#include "dh_db_node.hpp"
#include "dh_error.hpp"

// A node that keeps its last value (as JSON text) and sends a "changed" notification to every
// subscribed session when the value differs from the one kept. Reads answer from the kept
// value, so they never wait on a handler.
class dh_db_event_node : public dh_db_leaf_node {
  public:
    struct history_entry {
        std::chrono::system_clock::time_point time;
        std::string value;  // JSON text
    };
    static constexpr std::size_t history_capacity = 16;

    void get(const std::string& path, dh::json_allocator& allocator, dh::json_value& out) override;
    std::string get_text(const std::string& path) override;
    bool get_may_block() const override { return false; }
    bool readable() const override { return true; }
    bool is_read_only() const override { return true; }

    bool subscription_supported() const override { return true; }
    void subscribe(const std::shared_ptr<dh_session>& session, const std::string& path,
                   dh::json_allocator& allocator, dh::json_value& out) override;
    void unsubscribe(const std::shared_ptr<dh_session>& session) override;

    // The current value, as one history entry would carry it.
    dh::json_value export_history_entry(dh::json_allocator& allocator) const override;

    bool has_value() const;
    std::vector<history_entry> history() const;
    std::size_t subscriber_count() const;

    // The notification line a value change sends: {"jsonrpc":"2.0","method":"changed",...}.
    static std::shared_ptr<const std::string> create_value_changed_event(
        const std::string& path, const std::string& value_text);

  protected:
    // Keeps `value_text` and notifies subscribers when it differs from the kept value (or
    // always with `force_event`). Returns whether subscribers were notified.
    bool store_text(std::string value_text, bool force_event = false);
    // Makes reads fail with `error` until the next stored value (a failed poll).
    void store_error(dh_error error);
    // The error a read gets before the first value.
    virtual dh_error unset_error() const;
    void send_event_impl(const std::shared_ptr<const std::string>& line);

  private:
    friend class dh_db;
    void append_history(std::chrono::system_clock::time_point time, const std::string& value);

    mutable std::mutex event_mutex_;
    std::optional<std::string> value_text_;
    std::optional<dh_error> error_;
    std::vector<std::weak_ptr<dh_session>> subscribers_;
    std::vector<history_entry> history_;  // ring of history_capacity entries
    std::size_t history_next_ = 0;
};
