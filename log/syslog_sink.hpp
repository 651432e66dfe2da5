#pragma once

#include <boost/log/sinks/basic_sink_backend.hpp>
#include <string>

namespace msg_log {

// Sends each record as one RFC 3164 datagram to a syslog socket (normally /dev/log), facility
// daemon, keeping the record's own severity. A full or missing socket drops the record rather
// than blocking the daemon.
class syslog_datagram_backend
    : public boost::log::sinks::basic_sink_backend<boost::log::sinks::synchronized_feeding> {
  public:
    syslog_datagram_backend(std::string socket_path, std::string ident);
    ~syslog_datagram_backend();
    syslog_datagram_backend(const syslog_datagram_backend&) = delete;
    syslog_datagram_backend& operator=(const syslog_datagram_backend&) = delete;

    void consume(const boost::log::record_view& rec);

    // "<PRI>ident[pid]: [tag] text" for a record of the given severity.
    static std::string format(int severity, const std::string& ident, const std::string& tag,
                              const std::string& text);

  private:
    std::string socket_path_;
    std::string ident_;
    int fd_ = -1;
};

}  // namespace msg_log
