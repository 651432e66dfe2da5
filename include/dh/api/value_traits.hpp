#pragma once

#include <charconv>
#include <cmath>
#include <concepts>
#include <cstdint>
#include <limits>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "dh_error.hpp"
#include "dh_json.hpp"

namespace dh::api {

// A JSON document published as a node value ("valueType": "object"), kept as its text.
struct json_object {
    std::string text = "{}";
    bool operator==(const json_object&) const = default;
};

class json_value_conversion_error : public dh_error {
  public:
    explicit json_value_conversion_error(std::string text)
        : dh_error(dh::errc::invalid, std::move(text)) {}
};

template <class T>
struct is_vector : std::false_type {};
template <class T, class A>
struct is_vector<std::vector<T, A>> : std::true_type {};

// The "valueType" name clients see for a value type.
template <class T>
constexpr const char* type_name() {
    if constexpr (std::is_same_v<T, bool>)
        return "bool";
    else if constexpr (std::is_same_v<T, json_object>)
        return "object";
    else if constexpr (std::is_same_v<T, std::uint32_t>)
        return "32-bit unsigned integer";
    else if constexpr (std::is_same_v<T, std::int32_t>)
        return "32-bit signed integer";
    else if constexpr (std::is_same_v<T, std::uint64_t>)
        return "64-bit unsigned integer";
    else if constexpr (std::is_same_v<T, std::int64_t>)
        return "64-bit signed integer";
    else if constexpr (std::is_same_v<T, float>)
        return "float";
    else if constexpr (std::is_same_v<T, double>)
        return "double";
    else
        return "unknown";
}

template <class T>
json_value to_json(const T& value, json_allocator& allocator) {
    if constexpr (std::is_same_v<T, bool>) {
        return json_value(value);
    } else if constexpr (std::is_integral_v<T> && std::is_signed_v<T>) {
        return json_value(static_cast<std::int64_t>(value));
    } else if constexpr (std::is_integral_v<T>) {
        return json_value(static_cast<std::uint64_t>(value));
    } else if constexpr (std::is_floating_point_v<T>) {
        return json_value(static_cast<double>(value));
    } else if constexpr (std::is_enum_v<T>) {
        return json_value(static_cast<std::int64_t>(value));
    } else if constexpr (std::is_convertible_v<const T&, std::string_view>) {
        std::string_view text(value);
        return json_value(text.data(), static_cast<rapidjson::SizeType>(text.size()), allocator);
    } else if constexpr (std::is_same_v<T, json_object>) {
        rapidjson::Document parsed(&allocator);
        parsed.Parse(value.text.c_str(), value.text.size());
        json_value out;
        if (!parsed.HasParseError()) out.CopyFrom(parsed, allocator);
        return out;
    } else if constexpr (is_vector<T>::value) {
        json_value array(rapidjson::kArrayType);
        for (const auto& item : value)
            array.PushBack(to_json(item, allocator), allocator);
        return array;
    } else {
        static_assert(sizeof(T) == 0, "no JSON form for this value type");
    }
}

// The JSON text of a value, as stored by event nodes and sent on the wire.
template <class T>
std::string to_json_text(const T& value) {
    if constexpr (std::is_same_v<T, bool>) {
        return value ? "true" : "false";
    } else if constexpr (std::is_integral_v<T>) {
        char buffer[24];
        auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
        return std::string(buffer, end);
    } else if constexpr (std::is_same_v<T, json_object>) {
        rapidjson::Document parsed;
        parsed.Parse(value.text.c_str(), value.text.size());
        return parsed.HasParseError() ? std::string("null") : dh::to_json_text(parsed);
    } else {
        rapidjson::Document scratch;
        return dh::to_json_text(to_json(value, scratch.GetAllocator()));
    }
}

template <class T>
T from_json(const json_value& value) {
    if constexpr (std::is_same_v<T, bool>) {
        if (!value.IsBool()) throw json_value_conversion_error("Expected a boolean value");
        return value.GetBool();
    } else if constexpr (std::is_integral_v<T> || std::is_enum_v<T>) {
        using I = typename std::conditional_t<std::is_enum_v<T>, std::underlying_type<T>,
                                              std::type_identity<T>>::type;
        if (value.IsInt64()) {
            const std::int64_t v = value.GetInt64();
            if (std::in_range<I>(v)) return static_cast<T>(v);
        } else if (value.IsUint64()) {
            const std::uint64_t v = value.GetUint64();
            if (std::in_range<I>(v)) return static_cast<T>(v);
        } else {
            throw json_value_conversion_error("Expected an integer value");
        }
        throw json_value_conversion_error("Integer value out of range of " +
                                          std::string(type_name<T>()));
    } else if constexpr (std::is_floating_point_v<T>) {
        if (!value.IsNumber()) throw json_value_conversion_error("Expected a number");
        const double v = value.GetDouble();
        if (std::isnan(v)) throw json_value_conversion_error("Argument value is NaN.");
        if (std::isinf(v)) throw json_value_conversion_error("Argument value is infinite.");
        if (std::abs(v) > static_cast<double>(std::numeric_limits<T>::max()))
            throw json_value_conversion_error("Number out of range of " +
                                              std::string(type_name<T>()));
        return static_cast<T>(v);
    } else if constexpr (std::is_same_v<T, std::string>) {
        if (!value.IsString()) throw json_value_conversion_error("Expected a string value");
        return std::string(value.GetString(), value.GetStringLength());
    } else if constexpr (std::is_same_v<T, json_object>) {
        return json_object{dh::to_json_text(value)};
    } else if constexpr (is_vector<T>::value) {
        if (!value.IsArray()) throw json_value_conversion_error("Expected an array value");
        T out;
        for (const auto& item : value.GetArray())
            out.push_back(from_json<typename T::value_type>(item));
        return out;
    } else {
        static_assert(sizeof(T) == 0, "no JSON form for this value type");
    }
}

// Member-function introspection: the owner class, the result and the parameters.
template <class F>
struct member_fn;
template <class R, class C, class... A>
struct member_fn<R (C::*)(A...)> {
    using owner = C;
    using result = R;
    using params = std::tuple<std::decay_t<A>...>;
    static constexpr std::size_t arity = sizeof...(A);
};
template <class R, class C, class... A>
struct member_fn<R (C::*)(A...) const> : member_fn<R (C::*)(A...)> {};
template <class R, class C, class... A>
struct member_fn<R (C::*)(A...) noexcept> : member_fn<R (C::*)(A...)> {};
template <class R, class C, class... A>
struct member_fn<R (C::*)(A...) const noexcept> : member_fn<R (C::*)(A...)> {};

// All parameters but the last (the bound arguments of a setter) and the last one (its value).
template <class Tuple>
struct split_last;
template <class Last>
struct split_last<std::tuple<Last>> {
    using init = std::tuple<>;
    using last = Last;
};
template <class First, class... Rest>
requires(sizeof...(Rest) > 0) struct split_last<std::tuple<First, Rest...>> {
    using init =
        decltype(std::tuple_cat(std::declval<std::tuple<First>>(),
                                std::declval<typename split_last<std::tuple<Rest...>>::init>()));
    using last = typename split_last<std::tuple<Rest...>>::last;
};

// Arguments bound to a node at creation, passed before the value: the lane of a per-lane node.
template <class... B>
struct bound_args {
    std::tuple<B...> values;
};
template <class... B>
bound_args<std::decay_t<B>...> bind_args(B&&... values) {
    return {std::tuple<std::decay_t<B>...>(std::forward<B>(values)...)};
}

}  // namespace dh::api
