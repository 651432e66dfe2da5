#include "dh_db.hpp"

#include <mutex>

#include "dh_db_event_node.hpp"
#include "dh_error.hpp"

namespace {
std::string_view normalized(std::string_view path) {
    while (!path.empty() && path.front() == '/')
        path.remove_prefix(1);
    while (!path.empty() && path.back() == '/')
        path.remove_suffix(1);
    return path;
}
}  // namespace

void dh_db_registry::erase(const std::string& path, const dh_db_node* node) {
    std::unique_lock lock(mutex);
    auto it = nodes.find(path);
    if (it != nodes.end() && it->second.identity == node) nodes.erase(it);
}

dh_db::dh_db() : registry_(std::make_shared<dh_db_registry>()) {}

std::vector<std::string> dh_db::split_path(std::string_view path) {
    if (!path.empty() && path.front() == '/') path.remove_prefix(1);
    std::vector<std::string> components;
    while (true) {
        const auto slash = path.find('/');
        const auto component = path.substr(0, slash);
        if (component.empty())
            throw dh_error(dh::errc::invalid, "Invalid node path: " + std::string(path));
        components.emplace_back(component);
        if (slash == std::string_view::npos) break;
        path.remove_prefix(slash + 1);
    }
    return components;
}

std::string dh_db::join_path(const std::vector<std::string>& components) {
    std::string path;
    for (const auto& c : components) {
        if (!path.empty()) path += '/';
        path += c;
    }
    return path;
}

void dh_db::add_node(const std::vector<std::string>& components,
                     const std::shared_ptr<dh_db_leaf_node>& node) {
    std::string path = join_path(components);
    std::unique_lock lock(registry_->mutex);
    auto [it, inserted] =
        registry_->nodes.try_emplace(path, dh_db_registry::entry{node, node.get()});
    if (!inserted) {
        if (!it->second.node.expired())
            throw dh_error(dh::errc::exists, "Node already exists: " + path);
        it->second = {node, node.get()};
    }
    node->path_ = std::move(path);
    node->registry_ = registry_;
}

std::shared_ptr<dh_db_leaf_node> dh_db::find(std::string_view path) const {
    path = normalized(path);
    std::shared_lock lock(registry_->mutex);
    auto it = registry_->nodes.find(path);
    if (it == registry_->nodes.end()) return nullptr;
    return it->second.node.lock();
}

std::shared_ptr<dh_db_leaf_node> dh_db::lookup(std::string_view path) const {
    auto node = find(path);
    if (!node) throw dh_error(dh::errc::no_such_node, "No such node: " + std::string(path));
    return node;
}

std::vector<dh_db::listing_entry> dh_db::list(std::string_view prefix) const {
    prefix = normalized(prefix);
    std::vector<listing_entry> result;
    std::shared_lock lock(registry_->mutex);
    auto it = prefix.empty() ? registry_->nodes.begin() : registry_->nodes.lower_bound(prefix);
    for (; it != registry_->nodes.end(); ++it) {
        const std::string& path = it->first;
        if (!prefix.empty()) {
            if (!std::string_view(path).starts_with(prefix)) break;
            if (path.size() > prefix.size() && path[prefix.size()] != '/') continue;
        }
        if (auto node = it->second.node.lock()) result.push_back({path, std::move(node)});
    }
    return result;
}

std::size_t dh_db::size() const {
    std::shared_lock lock(registry_->mutex);
    return registry_->nodes.size();
}

void dh_db::append_to_history(dh_db_event_node& node, const std::string& value_text) {
    node.append_history(std::chrono::system_clock::now(), value_text);
}
