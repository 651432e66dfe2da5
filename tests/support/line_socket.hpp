#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include "device_handler_api.hpp"

namespace qsfpd::test {

// {"jsonrpc":"2.0","id":id,"method":method,"params":params}; no id makes it a notification.
// Lines carry no line end.
inline std::string request(const std::string& method, const std::string& params,
                           std::string id = "1") {
    if (!id.empty()) id = R"("id":)" + id + ",";
    return R"({"jsonrpc":"2.0",)" + id + R"("method":")" + method + R"(","params":)" + params + "}";
}
inline std::string result(const std::string& value, const std::string& id = "1") {
    return R"({"jsonrpc":"2.0","id":)" + id + R"(,"result":)" + value + "}";
}
// `message` as it appears in JSON, escapes included.
inline std::string error(int code, const std::string& message, const std::string& id = "1") {
    return R"({"jsonrpc":"2.0","id":)" + id + R"(,"error":{"code":)" + std::to_string(code) +
           R"(,"message":")" + message + "\"}}";
}

// A server on `socket_path` and a free TCP port, serving on its own thread until stop().
struct running_server {
    explicit running_server(std::string socket_path, device_handler_api::limits limits = {},
                            bool local_only = false)
        : api(std::make_unique<device_handler_api>(std::move(socket_path), 0, local_only, limits,
                                                   false)),
          thread([this] { api->start(); }) {}
    ~running_server() { stop(); }
    // Stops serving and destroys the server, which drops every client connection.
    void stop() {
        if (!api) return;
        api->stop();
        if (thread.joinable()) thread.join();
        api.reset();
    }

    std::unique_ptr<device_handler_api> api;
    std::thread thread;
};

// A plain blocking client socket to a local TCP port for protocol tests: every wait is bounded.
class line_socket {
  public:
    explicit line_socket(unsigned short port)
        : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(port);
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (fd_ >= 0 && ::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0)
            return;
        if (fd_ >= 0) ::close(fd_);
        throw std::runtime_error("connect failed");
    }

    line_socket(line_socket&& other) noexcept : fd_(other.fd_), buffer_(std::move(other.buffer_)) {
        other.fd_ = -1;
    }
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
    std::optional<std::string> read_line() {
        std::size_t nl;
        char chunk[65536];
        while ((nl = buffer_.find('\n')) == std::string::npos) {
            const auto n = wait_readable() ? ::recv(fd_, chunk, sizeof chunk, 0) : 0;
            if (n <= 0) return std::nullopt;
            buffer_.append(chunk, static_cast<std::size_t>(n));
        }
        std::string line = buffer_.substr(0, nl);
        buffer_.erase(0, nl + 1);
        return line;
    }

    // True when the peer closed the connection (after any pending bytes are drained).
    bool closed_by_peer() {
        char chunk[65536];
        while (wait_readable())
            if (::recv(fd_, chunk, sizeof chunk, 0) <= 0) return true;
        return false;
    }

    std::string request(const std::string& line) {
        send(line + "\n");
        return read_line().value_or("<no answer>");
    }

    // Whether an answer (or anything) is waiting, or arrives within `limit`.
    bool readable_within(std::chrono::milliseconds limit) {
        if (!buffer_.empty()) return true;
        pollfd p{fd_, POLLIN, 0};
        return ::poll(&p, 1, static_cast<int>(limit.count())) > 0;
    }

  private:
    bool wait_readable() { return readable_within(std::chrono::milliseconds(5000)); }

    int fd_;
    std::string buffer_;
};

}  // namespace qsfpd::test
