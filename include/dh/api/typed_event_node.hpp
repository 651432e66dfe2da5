#pragma once

#include <mutex>
#include <optional>

#include "dh_db_event_node.hpp"
#include "node_support.hpp"

namespace dh::api {

// An event node that also keeps its last published value typed, for the owner to read back
// and for filters to compare against.
template <class V>
class typed_event_node : public dh_db_event_node {
  public:
    using value_type = V;

    std::optional<V> last_value() const {
        std::lock_guard lock(typed_mutex_);
        return published_;
    }

  protected:
    // Publishes `candidate` when the filter lets it through; returns whether it was published.
    bool publish(const V& candidate, bool force_event = false) {
        {
            std::lock_guard lock(typed_mutex_);
            if (!filter_accepts(candidate, published_) && !force_event) return false;
            published_ = candidate;
        }
        store_text(to_json_text(candidate), force_event);
        return true;
    }

    // Decides whether a new candidate replaces the published value. Called under the node's
    // lock with the value published so far; the plain kinds accept every candidate.
    virtual bool filter_accepts(const V&, const std::optional<V>&) { return true; }

    json_value event_info(json_allocator& allocator, const char* type) const {
        auto info = base_info(allocator);
        add_string(info, allocator, "valueType", type_name<V>());
        add_capabilities(info, allocator, true, false, true);
        add_string(info, allocator, "type", type);
        return info;
    }

  private:
    mutable std::mutex typed_mutex_;
    std::optional<V> published_;
};

// A value the owner pushes whenever it learns it; clients read and subscribe.
template <class V>
class pushed_volatile_value_impl : public typed_event_node<V> {
  public:
    template <class Owner>
    static std::shared_ptr<pushed_volatile_value_impl> create(dh_db& db, std::string_view path,
                                                              const std::shared_ptr<Owner>&) {
        return register_node(db, path, std::make_shared<pushed_volatile_value_impl>());
    }

    // Returns whether the value was published (filters may hold it back).
    bool update(const V& value) { return this->publish(value); }

    std::string get_info() const override { return "pushed volatile value (read, subscribe)"; }
    json_value get_info(json_allocator& allocator) const override {
        return this->event_info(allocator, "pushed volatile value");
    }
    std::string kind() const override { return "pushed volatile value"; }
};

// A status the owner sets (readiness, alarm severities); clients read and subscribe.
template <class V>
class status_value : public typed_event_node<V> {
  public:
    template <class Owner>
    static std::shared_ptr<status_value> create(dh_db& db, std::string_view path,
                                                const std::shared_ptr<Owner>&) {
        return register_node(db, path, std::make_shared<status_value>());
    }
    template <class Owner>
    static std::shared_ptr<status_value> create(dh_db& db, std::string_view path,
                                                const std::shared_ptr<Owner>& owner,
                                                const V& initial) {
        auto node = create(db, path, owner);
        node->update(initial);
        return node;
    }

    bool update(const V& value) { return this->publish(value); }

    std::string get_info() const override { return "status value (read,subscribe)"; }
    json_value get_info(json_allocator& allocator) const override {
        return this->event_info(allocator, "status value");
    }
    std::string kind() const override { return "status value"; }
};

// A value the owner's getter yields once per value-group period; reads return the last poll.
template <auto Getter>
class polled_volatile_value_impl
    : public typed_event_node<std::decay_t<typename member_fn<decltype(Getter)>::result>> {
    using fn = member_fn<decltype(Getter)>;

  public:
    using owner_type = typename fn::owner;
    using value_type = std::decay_t<typename fn::result>;
    using bound_type = typename fn::params;

    polled_volatile_value_impl(const std::shared_ptr<owner_type>& owner, bound_type bound)
        : owner_(owner), bound_(std::move(bound)) {}

    template <class... B>
    static std::shared_ptr<polled_volatile_value_impl> create(
        dh_db& db, std::string_view path, const std::shared_ptr<owner_type>& owner, B&&... bound) {
        return register_node(db, path,
                             std::make_shared<polled_volatile_value_impl>(
                                 owner, bound_type(std::forward<B>(bound)...)));
    }

    // One poll: a failed getter makes reads report its error until the next good poll.
    void poll(bool force_event) {
        try {
            auto owner = owner_.lock();
            value_type value = guarded([&]() -> value_type {
                return std::apply([&](const auto&... a) { return ((*owner).*Getter)(a...); },
                                  bound_);
            });
            this->publish(value, force_event);
        } catch (const dh_error& e) {
            this->store_error(e);
        }
    }

    void periodic_task(bool force_event) override { poll(force_event); }

    // Before the first period the first read polls, so a fresh handler answers at once.
    std::string get_text(const std::string& path) override {
        if (!this->has_value()) poll(false);
        return dh_db_event_node::get_text(path);
    }
    bool get_may_block() const override { return !this->has_value(); }

    std::string get_info() const override { return "polled volatile value (read, subscribe)"; }
    json_value get_info(json_allocator& allocator) const override {
        return this->event_info(allocator, "polled volatile value");
    }
    std::string kind() const override { return "polled volatile value"; }

  private:
    owner_ref<owner_type> owner_;
    bound_type bound_;
};

}  // namespace dh::api
