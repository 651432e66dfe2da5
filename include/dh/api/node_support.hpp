#pragma once

#include <memory>
#include <string_view>
#include <system_error>

#include "dh_db.hpp"
#include "dh_error.hpp"
#include "value_traits.hpp"

namespace dh::api {

// Runs a handler's getter or setter and turns whatever it throws into the error clients see.
template <class F>
decltype(auto) guarded(F&& f) {
    try {
        return std::forward<F>(f)();
    } catch (const dh_error&) {
        throw;
    } catch (const std::system_error& e) {
        const int value = e.code().value();
        const bool errno_like = e.code().category() == std::generic_category() ||
                                e.code().category() == std::system_category();
        throw dh_error(errno_like && value > 0 ? -value : dh::errc::io_error,
                       "System error (" + std::string(e.what()) + ")");
    } catch (const std::runtime_error& e) {
        throw dh_error(dh::errc::io_error, "Runtime error (" + std::string(e.what()) + ")");
    } catch (const std::logic_error& e) {
        throw dh_error(dh::errc::io_error, "Logic error (" + std::string(e.what()) + ")");
    } catch (const std::exception& e) {
        throw dh_error(dh::errc::io_error, "Generic error (" + std::string(e.what()) + ")");
    } catch (...) {
        throw dh_error(dh::errc::io_error, "Unknown error");
    }
}

// The owner of a node, held weakly: a node reached after its owner is gone answers
// "Object has been removed" instead of touching a destroyed handler.
template <class Owner>
class owner_ref {
  public:
    owner_ref() = default;
    explicit owner_ref(const std::shared_ptr<Owner>& owner) : owner_(owner) {}

    std::shared_ptr<Owner> lock() const {
        auto owner = owner_.lock();
        if (!owner) throw dh_error(dh::errc::removed, "Object has been removed");
        return owner;
    }

  private:
    std::weak_ptr<Owner> owner_;
};

template <class Node>
std::shared_ptr<Node> register_node(dh_db& db, std::string_view path, std::shared_ptr<Node> node) {
    db.add_node(dh_db::split_path(path), node);
    return node;
}

inline void add_capabilities(json_value& info, json_allocator& allocator, bool read, bool write,
                             bool subscribe) {
    json_value caps(rapidjson::kObjectType);
    if (read) caps.AddMember("read", true, allocator);
    if (write) caps.AddMember("write", true, allocator);
    if (subscribe) caps.AddMember("subscribe", true, allocator);
    info.AddMember("capabilities", caps, allocator);
}

inline void add_string(json_value& info, json_allocator& allocator, const char* key,
                       std::string_view value) {
    info.AddMember(
        rapidjson::StringRef(key),
        json_value(value.data(), static_cast<rapidjson::SizeType>(value.size()), allocator),
        allocator);
}

}  // namespace dh::api
