#pragma once

#include <concepts>
#include <variant>

#include "typed_event_node.hpp"

namespace dh::api {

template <class V>
struct min_max_range_t {
    V min;
    V max;
};

template <class V>
struct min_max_grid_range_t {
    V min;
    V max;
    std::string grid;  // shown to clients, e.g. "6.25 GHz"
};

// No constraint (the bool placeholder), a range, a range on a grid, or a list of allowed values.
template <class V>
using config_constraint =
    std::variant<bool, min_max_range_t<V>, min_max_grid_range_t<V>, std::vector<V>>;

namespace detail {

template <class V>
void check_constraint(const config_constraint<V>& constraint, const V& value) {
    auto out_of_range = [&](const V& min, const V& max, const std::string* grid) {
        std::string text = "Value " + to_json_text(value) + " is out of range, allowed range is [" +
                           to_json_text(min) + ", " + to_json_text(max) + "]";
        if (grid) text += " on grid " + *grid;
        throw dh_error(dh::errc::invalid, text);
    };
    switch (constraint.index()) {
        case 0:
            return;
        case 1:
        case 2:
            if constexpr (std::totally_ordered<V>) {
                if (constraint.index() == 1) {
                    const auto& r = std::get<1>(constraint);
                    if (value < r.min || r.max < value) out_of_range(r.min, r.max, nullptr);
                } else {
                    const auto& r = std::get<2>(constraint);
                    if (value < r.min || r.max < value) out_of_range(r.min, r.max, &r.grid);
                }
                return;
            } else {
                throw dh_error(dh::errc::invalid, "Range constraint on an unordered value type");
            }
        case 3: {
            const auto& allowed = std::get<3>(constraint);
            for (const auto& a : allowed)
                if (a == value) return;
            std::string list;
            for (const auto& a : allowed)
                list += (list.empty() ? "" : ", ") + to_json_text(a);
            throw dh_error(dh::errc::invalid, "Value " + to_json_text(value) +
                                                  " is not allowed, allowed values are: " + list);
        }
        default:
            throw dh_error(dh::errc::invalid, "Unexpected index");
    }
}

template <class V>
void add_constraint_info(json_value& info, json_allocator& allocator,
                         const config_constraint<V>& constraint) {
    json_value c(rapidjson::kObjectType);
    switch (constraint.index()) {
        case 0:
            return;
        case 1: {
            const auto& r = std::get<1>(constraint);
            c.AddMember("min", to_json(r.min, allocator), allocator);
            c.AddMember("max", to_json(r.max, allocator), allocator);
            break;
        }
        case 2: {
            const auto& r = std::get<2>(constraint);
            c.AddMember("min", to_json(r.min, allocator), allocator);
            c.AddMember("max", to_json(r.max, allocator), allocator);
            add_string(c, allocator, "grid", r.grid);
            break;
        }
        case 3:
            c.AddMember("allowed", to_json(std::get<3>(constraint), allocator), allocator);
            break;
        default:
            throw dh_error(dh::errc::invalid, "Unexpected index");
    }
    info.AddMember("constraints", c, allocator);
}

}  // namespace detail

// A configuration parameter: a client's write is checked against the constraint, handed to the
// owner's setter and kept (and notified) only when the setter accepts it. The setter may return
// bool (false refuses) or void, and refuses with a dh_error carrying its own text.
template <auto Setter>
class config_param
    : public typed_event_node<
          std::decay_t<typename split_last<typename member_fn<decltype(Setter)>::params>::last>> {
    using fn = member_fn<decltype(Setter)>;
    using split = split_last<typename fn::params>;

  public:
    using owner_type = typename fn::owner;
    using value_type = std::decay_t<typename split::last>;
    using bound_type = typename split::init;
    using constraint_type = config_constraint<value_type>;

    config_param(const std::shared_ptr<owner_type>& owner, bound_type bound,
                 constraint_type constraint, std::optional<value_type> default_value)
        : owner_(owner),
          bound_(std::move(bound)),
          constraint_(std::move(constraint)),
          default_(std::move(default_value)) {}

    static std::shared_ptr<config_param> create(
        dh_db& db, std::string_view path, const std::shared_ptr<owner_type>& owner,
        constraint_type constraint = {}, std::optional<value_type> default_value = std::nullopt) {
        return register_node(
            db, path,
            std::make_shared<config_param>(owner, bound_type{}, std::move(constraint),
                                           std::move(default_value)));
    }
    template <class... B>
    static std::shared_ptr<config_param> create(
        dh_db& db, std::string_view path, const std::shared_ptr<owner_type>& owner,
        bound_args<B...> bound, constraint_type constraint = {},
        std::optional<value_type> default_value = std::nullopt) {
        return register_node(
            db, path,
            std::make_shared<config_param>(owner, bound_type(std::move(bound.values)),
                                           std::move(constraint), std::move(default_value)));
    }

    // A client's write: constraint, then the setter (without the node's lock, since the setter
    // takes the handler mutex first), then the value is kept and subscribers notified.
    void write(const value_type& value) {
        constraint_type constraint;
        {
            std::lock_guard lock(config_mutex_);
            constraint = constraint_;
        }
        detail::check_constraint(constraint, value);
        auto owner = owner_.lock();
        const bool accepted = guarded([&]() -> bool {
            using result = typename fn::result;
            auto call = [&](const auto&... a) -> result { return ((*owner).*Setter)(a..., value); };
            if constexpr (std::is_same_v<result, bool>) {
                return std::apply(call, bound_);
            } else {
                std::apply(call, bound_);
                return true;
            }
        });
        if (!accepted)
            throw dh_error(dh::errc::invalid, "Configuration refused by the module handler");
        this->publish(value);
    }

    // The owner's own setting (a value restored or read back from the module): kept and
    // notified without calling the setter.
    void set_value(const value_type& value) { this->publish(value); }
    std::optional<value_type> value() const { return this->last_value(); }

    void set_constraint(constraint_type constraint) {
        std::lock_guard lock(config_mutex_);
        constraint_ = std::move(constraint);
    }
    void set_default(std::optional<value_type> default_value) {
        std::lock_guard lock(config_mutex_);
        default_ = std::move(default_value);
    }
    std::optional<value_type> default_value() const {
        std::lock_guard lock(config_mutex_);
        return default_;
    }

    void set(const std::string&, const json_value& value) override {
        write(from_json<value_type>(value));
    }
    // Writes the default back through the setter.
    void reset() override {
        if (auto d = default_value()) write(*d);
    }
    bool get_may_block() const override { return false; }
    bool is_read_only() const override { return false; }

    std::string get_info() const override { return "config value (read,write,subscribe)"; }
    json_value get_info(json_allocator& allocator) const override {
        auto info = this->base_info(allocator);
        add_string(info, allocator, "type", "config param");
        add_string(info, allocator, "valueType", type_name<value_type>());
        add_capabilities(info, allocator, true, true, true);
        std::lock_guard lock(config_mutex_);
        if (default_) info.AddMember("defaultValue", to_json(*default_, allocator), allocator);
        detail::add_constraint_info(info, allocator, constraint_);
        return info;
    }
    std::string kind() const override { return "config param"; }

  protected:
    dh_error unset_error() const override {
        return dh_error(dh::errc::no_data,
                        "Configuration parameter read before being set, path =" + this->get_path());
    }

  private:
    owner_ref<owner_type> owner_;
    bound_type bound_;
    mutable std::mutex config_mutex_;
    constraint_type constraint_;
    std::optional<value_type> default_;
};

}  // namespace dh::api
