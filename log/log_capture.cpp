#include "log_capture.hpp"

#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>

namespace msg_log {

class log_capture::backend
    : public boost::log::sinks::basic_sink_backend<boost::log::sinks::synchronized_feeding> {
  public:
    explicit backend(std::shared_ptr<state> s) : state_(std::move(s)) {}
    void consume(const boost::log::record_view& rec) {
        captured_record r{
            boost::log::extract_or_default<int>("Severity", rec, -1),
            boost::log::extract_or_default<std::string>("Channel", rec, std::string()),
            boost::log::extract_or_default<std::string>("Message", rec, std::string())};
        std::lock_guard lock(state_->mutex);
        state_->records.push_back(std::move(r));
    }

  private:
    std::shared_ptr<state> state_;
};

log_capture::log_capture() : state_(std::make_shared<state>()) {
    auto sink = boost::make_shared<boost::log::sinks::synchronous_sink<backend>>(
        boost::make_shared<backend>(state_));
    boost::log::core::get()->add_sink(sink);
    sink_ = sink;
}

log_capture::~log_capture() {
    boost::log::core::get()->remove_sink(sink_);
}

std::vector<captured_record> log_capture::records() const {
    std::lock_guard lock(state_->mutex);
    return state_->records;
}

std::vector<captured_record> log_capture::find(std::string_view prefix) const {
    std::vector<captured_record> result;
    std::lock_guard lock(state_->mutex);
    for (const auto& r : state_->records)
        if (std::string_view(r.text).starts_with(prefix)) result.push_back(r);
    return result;
}

void log_capture::clear() {
    std::lock_guard lock(state_->mutex);
    state_->records.clear();
}

}  // namespace msg_log
