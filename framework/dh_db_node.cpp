#include "dh_db_node.hpp"

#include "dh_db.hpp"
#include "dh_error.hpp"

dh_db_node::~dh_db_node() {
    if (auto registry = registry_.lock()) registry->erase(path_, this);
}

void dh_db_leaf_node::refuse(const char* operation) const {
    throw dh_error(dh::errc::not_supported,
                   "Operation '" + std::string(operation) + "' is not supported by " + kind());
}

dh::json_value dh_db_leaf_node::export_history_entry(dh::json_allocator&) const {
    refuse("history");
}
void dh_db_leaf_node::get(const std::string&, dh::json_allocator&, dh::json_value&) {
    refuse("get");
}
void dh_db_leaf_node::set(const std::string&, const dh::json_value&) {
    refuse("set");
}
void dh_db_leaf_node::run(const std::string&, const dh::json_value&, dh::json_allocator&,
                          dh::json_value&) {
    refuse("run");
}
void dh_db_leaf_node::reset() {}
void dh_db_leaf_node::periodic_task(bool) {}
void dh_db_leaf_node::subscribe(const std::shared_ptr<dh_session>&, const std::string&,
                                dh::json_allocator&, dh::json_value&) {
    refuse("subscribe");
}
void dh_db_leaf_node::unsubscribe(const std::shared_ptr<dh_session>&) {
    refuse("unsubscribe");
}

std::string dh_db_leaf_node::get_text(const std::string& path) {
    rapidjson::Document scratch;
    dh::json_value value;
    get(path, scratch.GetAllocator(), value);
    return dh::to_json_text(value);
}

dh::json_value dh_db_leaf_node::base_info(dh::json_allocator& allocator) const {
    dh::json_value info(rapidjson::kObjectType);
    info.AddMember("path", dh::json_value(get_path().c_str(), allocator), allocator);
    info.AddMember("description", dh::json_value(get_info().c_str(), allocator), allocator);
    return info;
}

dh::json_value dh_db_leaf_node::get_info(dh::json_allocator& allocator) const {
    return base_info(allocator);
}
