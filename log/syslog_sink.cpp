#include "syslog_sink.hpp"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/expressions/message.hpp>
#include <cstring>

namespace msg_log {

namespace {
constexpr int facility_daemon = 3;
}

syslog_datagram_backend::syslog_datagram_backend(std::string socket_path, std::string ident)
    : socket_path_(std::move(socket_path)), ident_(std::move(ident)) {
    fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

syslog_datagram_backend::~syslog_datagram_backend() {
    if (fd_ >= 0) ::close(fd_);
}

std::string syslog_datagram_backend::format(int severity, const std::string& ident,
                                            const std::string& tag, const std::string& text) {
    const int pri = facility_daemon * 8 + (severity & 7);
    return "<" + std::to_string(pri) + ">" + ident + "[" + std::to_string(::getpid()) + "]: [" +
           tag + "] " + text;
}

void syslog_datagram_backend::consume(const boost::log::record_view& rec) {
    if (fd_ < 0) return;
    const int severity = boost::log::extract_or_default<int>("Severity", rec, 6);
    const std::string tag =
        boost::log::extract_or_default<std::string>("Channel", rec, std::string());
    const std::string text =
        boost::log::extract_or_default<std::string>("Message", rec, std::string());
    const std::string datagram = format(severity, ident_, tag, text);

    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (socket_path_.size() >= sizeof(addr.sun_path)) return;
    std::memcpy(addr.sun_path, socket_path_.c_str(), socket_path_.size() + 1);
    (void)::sendto(fd_, datagram.data(), datagram.size(), MSG_NOSIGNAL,
                   reinterpret_cast<const sockaddr*>(&addr), sizeof(addr));
}

}  // namespace msg_log
