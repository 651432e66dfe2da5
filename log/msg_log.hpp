#pragma once

#include <boost/log/sources/global_logger_storage.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/sources/severity_logger.hpp>
#include <boost/log/utility/formatting_ostream.hpp>
#include <optional>
#include <ostream>
#include <string>

namespace msg_log {

// Syslog severities; the daemon uses these four.
enum severity_level : int { error = 3, warning = 4, info = 6, debug = 7 };

// The logger holds no channel: each record carries its own, so threads logging on different
// channels at once never see each other's tag.
using logger_type = boost::log::sources::severity_logger_mt<int>;

// " (file.cpp:123)": the call site that ends every record.
std::string getCodeTrace(const char* file, int line);

struct init_options {
    int max_severity = info;  // records above this severity are dropped
    bool to_stderr = true;
    bool to_syslog = true;  // only when the /dev/log socket exists
    std::string ident = "qsfpd";
};
// Sets up the sinks once per process; later calls replace the previous sinks.
void init(const init_options& options = {});

// One record: the text streamed into it, then the code trace, pushed when the full expression ends.
class record_line {
  public:
    record_line(int severity, const std::string& tag, const char* file, int line);
    ~record_line();
    record_line(const record_line&) = delete;
    record_line& operator=(const record_line&) = delete;

    std::ostream& stream();

  private:
    boost::log::record record_;
    std::optional<boost::log::record_ostream> stream_;
    const char* file_;
    int line_;
};

}  // namespace msg_log

BOOST_LOG_GLOBAL_LOGGER(msg_log_slg, msg_log::logger_type)

#define MSG_LOG(severity, tag) \
    ::msg_log::record_line((severity), (tag), __FILE__, __LINE__).stream()
