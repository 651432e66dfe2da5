#pragma once

#include <atomic>
#include <boost/asio/post.hpp>
#include <chrono>
#include <future>

#include "dh_executor.hpp"
#include "typed_event_node.hpp"
#include "volatile_value.hpp"

namespace dh::api {

template <class Base, auto Getter>
class async_volatile_value;

// Leaf form: a read runs the getter on the background pool and waits at most `read_timeout`,
// so a getter stuck on the bus cannot hold a server thread forever.
template <auto Getter>
class async_volatile_value<dh_db_leaf_node, Getter> : public dh_db_leaf_node {
    using fn = member_fn<decltype(Getter)>;

  public:
    using owner_type = typename fn::owner;
    using value_type = std::decay_t<typename fn::result>;
    using bound_type = typename fn::params;
    static constexpr std::chrono::seconds read_timeout{5};

    async_volatile_value(const std::shared_ptr<owner_type>& owner, bound_type bound)
        : owner_(owner), bound_(std::move(bound)) {}

    template <class... B>
    static std::shared_ptr<async_volatile_value> create(dh_db& db, std::string_view path,
                                                        const std::shared_ptr<owner_type>& owner,
                                                        B&&... bound) {
        return register_node(
            db, path,
            std::make_shared<async_volatile_value>(owner, bound_type(std::forward<B>(bound)...)));
    }

    value_type read() const {
        auto owner = owner_.lock();
        auto task = std::make_shared<std::packaged_task<value_type()>>([owner, bound = bound_] {
            return guarded([&]() -> value_type {
                return std::apply([&](const auto&... a) { return ((*owner).*Getter)(a...); },
                                  bound);
            });
        });
        auto result = task->get_future();
        boost::asio::post(dh::background_pool(), [task] { (*task)(); });
        if (result.wait_for(read_timeout) != std::future_status::ready)
            throw dh_error(dh::errc::timed_out, "Timed out reading value");
        return result.get();
    }

    void get(const std::string&, json_allocator& allocator, json_value& out) override {
        out = to_json(read(), allocator);
    }
    std::string get_text(const std::string&) override { return to_json_text(read()); }
    std::string get_info() const override { return "async volatile value (read)"; }
    json_value get_info(json_allocator& allocator) const override {
        auto info = base_info(allocator);
        add_string(info, allocator, "valueType", type_name<value_type>());
        add_capabilities(info, allocator, true, false, false);
        add_string(info, allocator, "type", "async volatile value");
        return info;
    }
    std::string kind() const override { return "async volatile value"; }
    bool readable() const override { return true; }
    bool is_read_only() const override { return true; }

  private:
    owner_ref<owner_type> owner_;
    bound_type bound_;
};

// Event form: each period starts the getter in the background (unless the previous run is
// still going); its result is published when it arrives, reads return the last result.
template <auto Getter>
class async_volatile_value<dh_db_event_node, Getter>
    : public typed_event_node<std::decay_t<typename member_fn<decltype(Getter)>::result>> {
    using fn = member_fn<decltype(Getter)>;

  public:
    using owner_type = typename fn::owner;
    using value_type = std::decay_t<typename fn::result>;
    using bound_type = typename fn::params;

    async_volatile_value(const std::shared_ptr<owner_type>& owner, bound_type bound)
        : owner_(owner), bound_(std::move(bound)) {}

    template <class... B>
    static std::shared_ptr<async_volatile_value> create(dh_db& db, std::string_view path,
                                                        const std::shared_ptr<owner_type>& owner,
                                                        B&&... bound) {
        return register_node(
            db, path,
            std::make_shared<async_volatile_value>(owner, bound_type(std::forward<B>(bound)...)));
    }

    void periodic_task(bool force_event) override {
        if (running_.exchange(true)) return;
        std::weak_ptr<dh_db_leaf_node> weak = this->weak_from_this();
        boost::asio::post(dh::background_pool(), [weak, force_event] {
            auto self = std::static_pointer_cast<async_volatile_value>(weak.lock());
            if (!self) return;
            try {
                auto owner = self->owner_.lock();
                value_type value = guarded([&]() -> value_type {
                    return std::apply([&](const auto&... a) { return ((*owner).*Getter)(a...); },
                                      self->bound_);
                });
                self->publish(value, force_event);
            } catch (const dh_error& e) {
                self->store_error(e);
            }
            self->running_ = false;
        });
    }

    std::string get_info() const override { return "async volatile value (read, subscribe)"; }
    json_value get_info(json_allocator& allocator) const override {
        return this->event_info(allocator, "async volatile value");
    }
    std::string kind() const override { return "async volatile value"; }

  private:
    owner_ref<owner_type> owner_;
    bound_type bound_;
    std::atomic<bool> running_{false};
};

}  // namespace dh::api
