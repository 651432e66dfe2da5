#include "msg_log.hpp"

#include <unistd.h>

#include <boost/core/null_deleter.hpp>
#include <boost/log/attributes/attribute_value_impl.hpp>
#include <boost/log/attributes/clock.hpp>
#include <boost/log/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sinks/text_ostream_backend.hpp>
#include <boost/log/support/date_time.hpp>
#include <filesystem>
#include <iostream>
#include <mutex>

#include "syslog_sink.hpp"
#include "system_path.hpp"

BOOST_LOG_GLOBAL_LOGGER_INIT(msg_log_slg, msg_log::logger_type) {
    return msg_log::logger_type();
}

namespace msg_log {
namespace logging = boost::log;
namespace expr = boost::log::expressions;

BOOST_LOG_ATTRIBUTE_KEYWORD(severity_kw, "Severity", int)
BOOST_LOG_ATTRIBUTE_KEYWORD(channel_kw, "Channel", std::string)
BOOST_LOG_ATTRIBUTE_KEYWORD(timestamp_kw, "TimeStamp", boost::posix_time::ptime)

std::string getCodeTrace(const char* file, int line) {
    std::string_view path(file);
    if (auto slash = path.rfind('/'); slash != std::string_view::npos)
        path.remove_prefix(slash + 1);
    return " (" + std::string(path) + ":" + std::to_string(line) + ")";
}

namespace {
std::mutex init_mutex;
std::vector<boost::shared_ptr<logging::sinks::sink>> installed_sinks;
}  // namespace

void init(const init_options& options) {
    std::lock_guard lock(init_mutex);
    auto core = logging::core::get();
    for (auto& sink : installed_sinks)
        core->remove_sink(sink);
    installed_sinks.clear();
    core->add_global_attribute("TimeStamp", logging::attributes::local_clock());

    const int max_severity = options.max_severity;
    auto filter = severity_kw <= max_severity;

    if (options.to_stderr) {
        using backend_t = logging::sinks::text_ostream_backend;
        auto backend = boost::make_shared<backend_t>();
        backend->add_stream(boost::shared_ptr<std::ostream>(&std::clog, boost::null_deleter()));
        backend->auto_flush(true);
        auto sink = boost::make_shared<logging::sinks::synchronous_sink<backend_t>>(backend);
        sink->set_filter(filter);
        sink->set_formatter(expr::stream
                            << expr::format_date_time(timestamp_kw, "%Y-%m-%d %H:%M:%S.%f") << " <"
                            << severity_kw << "> [" << channel_kw << "] " << expr::smessage);
        core->add_sink(sink);
        installed_sinks.push_back(sink);
    }
    if (options.to_syslog) {
        const std::string socket_path = qsfpd::system_path("/dev/log");
        std::error_code ec;
        if (std::filesystem::exists(socket_path, ec)) {
            auto backend = boost::make_shared<syslog_datagram_backend>(socket_path, options.ident);
            auto sink =
                boost::make_shared<logging::sinks::synchronous_sink<syslog_datagram_backend>>(
                    backend);
            sink->set_filter(filter);
            core->add_sink(sink);
            installed_sinks.push_back(sink);
        }
    }
}

record_line::record_line(int severity, const std::string& tag, const char* file, int line)
    : file_(file), line_(line) {
    record_ = msg_log_slg::get().open_record(logging::keywords::severity = severity);
    if (!record_) return;
    record_.attribute_values().insert("Channel", logging::attributes::make_attribute_value(tag));
    stream_.emplace(record_);
}

record_line::~record_line() {
    if (!record_) return;
    *stream_ << getCodeTrace(file_, line_);
    stream_->flush();
    stream_.reset();
    msg_log_slg::get().push_record(std::move(record_));
}

std::ostream& record_line::stream() {
    if (stream_) return stream_->stream();
    // A filtered-out record still needs a stream to absorb the text.
    thread_local std::ostream discard(nullptr);
    return discard;
}

}  // namespace msg_log
