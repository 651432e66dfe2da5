#pragma once

#include "node_support.hpp"

namespace dh::api {

namespace detail {
template <class Params>
struct command_params {
    using bound = typename split_last<Params>::init;
    using argument = typename split_last<Params>::last;
};
// A command whose setter takes nothing ignores the client's argument.
template <>
struct command_params<std::tuple<>> {
    using bound = std::tuple<>;
    using argument = void;
};
}  // namespace detail

// A command: run converts the client's argument, calls the owner's setter, and the setter's
// result is the response.
template <auto Setter>
class command : public dh_db_leaf_node {
    using fn = member_fn<decltype(Setter)>;
    using params = detail::command_params<typename fn::params>;

  public:
    using owner_type = typename fn::owner;
    using argument_type = typename params::argument;
    using result_type = std::decay_t<typename fn::result>;
    using bound_type = typename params::bound;

    command(const std::shared_ptr<owner_type>& owner, bound_type bound)
        : owner_(owner), bound_(std::move(bound)) {}

    static std::shared_ptr<command> create(dh_db& db, std::string_view path,
                                           const std::shared_ptr<owner_type>& owner) {
        return register_node(db, path, std::make_shared<command>(owner, bound_type{}));
    }
    template <class... B>
    static std::shared_ptr<command> create(dh_db& db, std::string_view path,
                                           const std::shared_ptr<owner_type>& owner,
                                           bound_args<B...> bound) {
        return register_node(db, path,
                             std::make_shared<command>(owner, bound_type(std::move(bound.values))));
    }

    void run(const std::string&, const json_value& argument, json_allocator& allocator,
             json_value& out) override {
        auto owner = owner_.lock();
        auto invoke = [&]() -> decltype(auto) {
            if constexpr (std::is_void_v<argument_type>) {
                return std::apply(
                    [&](const auto&... a) -> decltype(auto) { return ((*owner).*Setter)(a...); },
                    bound_);
            } else {
                auto value = from_json<std::decay_t<argument_type>>(argument);
                return std::apply(
                    [&](const auto&... a) -> decltype(auto) {
                        return ((*owner).*Setter)(a..., value);
                    },
                    bound_);
            }
        };
        if constexpr (std::is_void_v<result_type>) {
            guarded(invoke);
            out.SetNull();
        } else {
            result_type result = guarded(invoke);
            out = to_json(result, allocator);
        }
    }

    std::string get_info() const override { return "command value returning response (write)"; }
    json_value get_info(json_allocator& allocator) const override {
        auto info = base_info(allocator);
        add_string(info, allocator, "type", "command");
        if constexpr (std::is_void_v<argument_type>)
            add_string(info, allocator, "valueType", "unknown");
        else
            add_string(info, allocator, "valueType", type_name<std::decay_t<argument_type>>());
        if constexpr (std::is_void_v<result_type>)
            add_string(info, allocator, "returnType", "unknown");
        else
            add_string(info, allocator, "returnType", type_name<result_type>());
        add_capabilities(info, allocator, false, true, false);
        return info;
    }
    std::string kind() const override { return "command"; }
    bool write_returns_response() const override { return true; }

  private:
    owner_ref<owner_type> owner_;
    bound_type bound_;
};

}  // namespace dh::api
