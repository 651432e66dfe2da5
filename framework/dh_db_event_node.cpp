#include "dh_db_event_node.hpp"

#include <algorithm>

#include "dh_db.hpp"
#include "dh_session.hpp"
#include "json_parse.hpp"

dh_error dh_db_event_node::unset_error() const {
    return dh_error(dh::errc::no_data, "Value has not been set");
}

std::string dh_db_event_node::get_text(const std::string&) {
    std::lock_guard lock(event_mutex_);
    if (error_) throw *error_;
    if (!value_text_) throw unset_error();
    return *value_text_;
}

void dh_db_event_node::get(const std::string& path, dh::json_allocator& allocator,
                           dh::json_value& out) {
    const std::string text = get_text(path);
    rapidjson::Document parsed(&allocator);
    qsfpd::parse_json<rapidjson::kParseNanAndInfFlag>(text.c_str(), text.size(), parsed);
    out.CopyFrom(parsed, allocator);
}

dh::json_value dh_db_event_node::export_history_entry(dh::json_allocator& allocator) const {
    std::string text;
    {
        std::lock_guard lock(event_mutex_);
        text = value_text_.value_or("null");
    }
    rapidjson::Document parsed(&allocator);
    qsfpd::parse_json(text.c_str(), text.size(), parsed);
    dh::json_value out;
    out.CopyFrom(parsed, allocator);
    return out;
}

void dh_db_event_node::subscribe(const std::shared_ptr<dh_session>& session, const std::string&,
                                 dh::json_allocator& allocator, dh::json_value& out) {
    std::string text;
    {
        std::lock_guard lock(event_mutex_);
        std::erase_if(subscribers_, [&](const std::weak_ptr<dh_session>& s) {
            auto live = s.lock();
            return !live || live == session;
        });
        subscribers_.push_back(session);
        // A value not yet known is reported as null; its first change is notified.
        text = (value_text_ && !error_) ? *value_text_ : "null";
    }
    rapidjson::Document parsed(&allocator);
    qsfpd::parse_json<rapidjson::kParseNanAndInfFlag>(text.c_str(), text.size(), parsed);
    out.CopyFrom(parsed, allocator);
}

void dh_db_event_node::unsubscribe(const std::shared_ptr<dh_session>& session) {
    std::lock_guard lock(event_mutex_);
    std::erase_if(subscribers_, [&](const std::weak_ptr<dh_session>& s) {
        auto live = s.lock();
        return !live || live == session;
    });
}

bool dh_db_event_node::has_value() const {
    std::lock_guard lock(event_mutex_);
    return value_text_.has_value();
}

std::size_t dh_db_event_node::subscriber_count() const {
    std::lock_guard lock(event_mutex_);
    return static_cast<std::size_t>(std::count_if(subscribers_.begin(), subscribers_.end(),
                                                  [](const auto& s) { return !s.expired(); }));
}

std::vector<dh_db_event_node::history_entry> dh_db_event_node::history() const {
    std::lock_guard lock(event_mutex_);
    std::vector<history_entry> ordered;
    ordered.reserve(history_.size());
    if (history_.size() < history_capacity) return history_;
    for (std::size_t i = 0; i < history_.size(); ++i)
        ordered.push_back(history_[(history_next_ + i) % history_.size()]);
    return ordered;
}

void dh_db_event_node::append_history(std::chrono::system_clock::time_point time,
                                      const std::string& value) {
    std::lock_guard lock(event_mutex_);
    if (history_.size() < history_capacity) {
        history_.push_back({time, value});
    } else {
        history_[history_next_] = {time, value};
        history_next_ = (history_next_ + 1) % history_capacity;
    }
}

std::shared_ptr<const std::string> dh_db_event_node::create_value_changed_event(
    const std::string& path, const std::string& value_text) {
    auto line = std::make_shared<std::string>();
    line->reserve(64 + path.size() + value_text.size());
    *line += R"({"jsonrpc":"2.0","method":"changed","params":{"path":)";
    dh::append_json_string(*line, path);
    *line += R"(,"value":)";
    *line += value_text;
    *line += "}}\n";
    return line;
}

void dh_db_event_node::send_event_impl(const std::shared_ptr<const std::string>& line) {
    std::vector<std::shared_ptr<dh_session>> targets;
    {
        std::lock_guard lock(event_mutex_);
        targets.reserve(subscribers_.size());
        std::erase_if(subscribers_, [&](const std::weak_ptr<dh_session>& s) {
            auto live = s.lock();
            if (!live || !live->is_open()) return true;
            targets.push_back(std::move(live));
            return false;
        });
    }
    for (auto& session : targets)
        session->deliver(line);
}

bool dh_db_event_node::store_text(std::string value_text, bool force_event) {
    bool has_subscribers = false;
    {
        std::lock_guard lock(event_mutex_);
        const bool changed = !value_text_ || *value_text_ != value_text || error_.has_value();
        error_.reset();
        if (!changed && !force_event) return false;
        if (changed) value_text_ = value_text;
        has_subscribers = !subscribers_.empty();
    }
    dh_db::append_to_history(*this, value_text);
    if (has_subscribers) send_event_impl(create_value_changed_event(get_path(), value_text));
    return true;
}

void dh_db_event_node::store_error(dh_error error) {
    std::lock_guard lock(event_mutex_);
    error_ = std::move(error);
}
