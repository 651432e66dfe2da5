#pragma once

#include "node_support.hpp"

namespace dh::api {

// A value computed by the owner's getter on every read (a register read, say).
template <auto Getter>
class volatile_value : public dh_db_leaf_node {
    using fn = member_fn<decltype(Getter)>;

  public:
    using owner_type = typename fn::owner;
    using value_type = std::decay_t<typename fn::result>;
    using bound_type = typename fn::params;

    volatile_value(const std::shared_ptr<owner_type>& owner, bound_type bound)
        : owner_(owner), bound_(std::move(bound)) {}

    template <class... B>
    static std::shared_ptr<volatile_value> create(dh_db& db, std::string_view path,
                                                  const std::shared_ptr<owner_type>& owner,
                                                  B&&... bound) {
        return register_node(
            db, path,
            std::make_shared<volatile_value>(owner, bound_type(std::forward<B>(bound)...)));
    }

    value_type read() const {
        auto owner = owner_.lock();
        return guarded([&]() -> value_type {
            return std::apply([&](const auto&... a) { return ((*owner).*Getter)(a...); }, bound_);
        });
    }

    void get(const std::string&, json_allocator& allocator, json_value& out) override {
        out = to_json(read(), allocator);
    }
    std::string get_text(const std::string&) override { return to_json_text(read()); }
    std::string get_info() const override { return "volatile value (read)"; }
    json_value get_info(json_allocator& allocator) const override {
        auto info = base_info(allocator);
        add_string(info, allocator, "valueType", type_name<value_type>());
        add_capabilities(info, allocator, true, false, false);
        add_string(info, allocator, "type", "volatile value");
        return info;
    }
    std::string kind() const override { return "volatile value"; }
    bool readable() const override { return true; }
    bool is_read_only() const override { return true; }

  private:
    owner_ref<owner_type> owner_;
    bound_type bound_;
};

// A value fixed when the node is created.
template <class T>
class const_value : public dh_db_leaf_node {
  public:
    explicit const_value(T value) : value_(std::move(value)), text_(to_json_text(value_)) {}

    template <class Owner>
    static std::shared_ptr<const_value> create(dh_db& db, std::string_view path,
                                               const std::shared_ptr<Owner>&, T value) {
        return register_node(db, path, std::make_shared<const_value>(std::move(value)));
    }

    const T& value() const { return value_; }

    void get(const std::string&, json_allocator& allocator, json_value& out) override {
        out = to_json(value_, allocator);
    }
    std::string get_text(const std::string&) override { return text_; }
    bool get_may_block() const override { return false; }
    std::string get_info() const override { return "const value (read)"; }
    json_value get_info(json_allocator& allocator) const override {
        auto info = base_info(allocator);
        add_string(info, allocator, "valueType", type_name<T>());
        add_capabilities(info, allocator, true, false, false);
        add_string(info, allocator, "type", "const value");
        return info;
    }
    std::string kind() const override { return "const value"; }
    bool readable() const override { return true; }
    bool is_read_only() const override { return true; }

  private:
    T value_;
    std::string text_;
};

}  // namespace dh::api
