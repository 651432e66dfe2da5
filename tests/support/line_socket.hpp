#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>

namespace qsfpd::test {

// A plain blocking client socket for protocol tests: every wait is bounded.
class line_socket {
  public:
    static line_socket tcp(unsigned short port) {
        line_socket s(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(port);
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(s.fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
            throw std::runtime_error("connect failed");
        return s;
    }
    static line_socket unix_socket(const std::string& path) {
        line_socket s(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
        if (::connect(s.fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
            throw std::runtime_error("connect failed");
        return s;
    }

    line_socket(line_socket&& other) noexcept : fd_(other.fd_), buffer_(std::move(other.buffer_)) {
        other.fd_ = -1;
    }
    line_socket& operator=(line_socket&&) = delete;
    ~line_socket() {
        if (fd_ >= 0) ::close(fd_);
    }

    void send(const std::string& text) {
        std::size_t sent = 0;
        while (sent < text.size()) {
            const auto n = ::send(fd_, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
            if (n <= 0) throw std::runtime_error("send failed");
            sent += static_cast<std::size_t>(n);
        }
    }

    // The next line without its "\n", or nothing on time-out or end of stream.
    std::optional<std::string> read_line(int timeout_ms = 5000) {
        while (true) {
            if (auto nl = buffer_.find('\n'); nl != std::string::npos) {
                std::string line = buffer_.substr(0, nl);
                buffer_.erase(0, nl + 1);
                return line;
            }
            if (!wait_readable(timeout_ms)) return std::nullopt;
            char chunk[65536];
            const auto n = ::recv(fd_, chunk, sizeof chunk, 0);
            if (n <= 0) return std::nullopt;
            buffer_.append(chunk, static_cast<std::size_t>(n));
        }
    }

    // True when the peer closed the connection (after any pending bytes are drained).
    bool closed_by_peer(int timeout_ms = 5000) {
        char chunk[65536];
        while (wait_readable(timeout_ms)) {
            const auto n = ::recv(fd_, chunk, sizeof chunk, 0);
            if (n <= 0) return true;
        }
        return false;
    }

    std::string request(const std::string& line) {
        send(line + "\n");
        return read_line().value_or("<no answer>");
    }

  private:
    explicit line_socket(int fd) : fd_(fd) {
        if (fd_ < 0) throw std::runtime_error("socket failed");
    }
    bool wait_readable(int timeout_ms) {
        pollfd p{fd_, POLLIN, 0};
        return ::poll(&p, 1, timeout_ms) > 0;
    }

    int fd_;
    std::string buffer_;
};

}  // namespace qsfpd::test
