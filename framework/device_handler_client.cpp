#include "device_handler_client.hpp"

#include <boost/asio.hpp>

#include "dh_json.hpp"
#include "json_parse.hpp"

namespace asio = boost::asio;

namespace {
constexpr int connection_refused = dh::errc::connection_refused;
constexpr std::size_t max_response_bytes = 64 * 1024 * 1024;
}  // namespace

struct device_handler_client::impl {
    asio::io_context io;
    asio::generic::stream_protocol::socket socket{io};
    std::string buffer;  // bytes received but not yet consumed
    std::deque<notification> notifications;
    std::uint64_t next_id = 1;
    bool tcp = false;
    std::string host;
    unsigned short port = 0;
    std::string socket_path;

    // Runs the io_context until `done` or the deadline; on time-out the operation is cancelled
    // (unread bytes stay in the socket) and false returned.
    bool run_until(const bool& done, std::chrono::milliseconds timeout) {
        io.restart();
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (!done) {
            if (io.run_one_until(deadline) == 0 && !done) {
                boost::system::error_code ignored;
                socket.cancel(ignored);
                io.restart();
                while (!done && io.run_one_for(std::chrono::milliseconds(100)) > 0) {
                }
                return false;
            }
        }
        return true;
    }

    bool connect(std::chrono::milliseconds timeout) {
        boost::system::error_code ec;
        bool done = false;
        if (tcp) {
            asio::ip::tcp::resolver resolver(io);
            auto endpoints = resolver.resolve(host, std::to_string(port), ec);
            if (ec || endpoints.empty()) return false;
            // "localhost" may resolve to ::1 first while the server listens on IPv4 only.
            for (const auto& entry : endpoints) {
                done = false;
                ec = {};
                socket.async_connect(asio::generic::stream_protocol::endpoint(entry.endpoint()),
                                     [&](boost::system::error_code e) {
                                         ec = e;
                                         done = true;
                                     });
                if (run_until(done, timeout) && !ec) break;
                boost::system::error_code ignored;
                socket.close(ignored);
                ec = asio::error::connection_refused;
            }
            if (ec) return false;
            done = true;
        } else {
            socket.async_connect(asio::generic::stream_protocol::endpoint(
                                     asio::local::stream_protocol::endpoint(socket_path)),
                                 [&](boost::system::error_code e) {
                                     ec = e;
                                     done = true;
                                 });
        }
        if (!run_until(done, timeout) || ec) {
            boost::system::error_code ignored;
            socket.close(ignored);
            return false;
        }
        if (tcp) {
            int one = 1;
            ::setsockopt(socket.native_handle(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        }
        buffer.clear();
        return true;
    }

    // Reads one line (without "\n"); false on time-out or a broken connection.
    bool read_line(std::string& line, std::chrono::milliseconds timeout) {
        while (true) {
            if (auto newline = buffer.find('\n'); newline != std::string::npos) {
                line.assign(buffer, 0, newline);
                buffer.erase(0, newline + 1);
                return true;
            }
            if (!socket.is_open() || buffer.size() > max_response_bytes) return false;
            std::array<char, 16384> chunk;
            bool done = false;
            boost::system::error_code ec;
            std::size_t received = 0;
            socket.async_read_some(asio::buffer(chunk),
                                   [&](boost::system::error_code e, std::size_t n) {
                                       ec = e;
                                       received = n;
                                       done = true;
                                   });
            if (!run_until(done, timeout)) return false;
            if (ec) {
                boost::system::error_code ignored;
                socket.close(ignored);
                return false;
            }
            buffer.append(chunk.data(), received);
        }
    }

    enum class write_result { written, timed_out, failed };

    // A write that did not complete may have sent part of a request: the connection is closed
    // either way, so no later request is glued to the remains of this one.
    write_result write_all(const std::string& text, std::chrono::milliseconds timeout) {
        bool done = false;
        boost::system::error_code ec;
        asio::async_write(socket, asio::buffer(text),
                          [&](boost::system::error_code e, std::size_t) {
                              ec = e;
                              done = true;
                          });
        const bool completed = run_until(done, timeout);
        if (completed && !ec) return write_result::written;
        boost::system::error_code ignored;
        socket.close(ignored);
        return completed ? write_result::failed : write_result::timed_out;
    }

    // Keeps a notification for next_notification; returns true if the line was one.
    bool take_notification(const rapidjson::Document& doc) {
        if (!doc.IsObject() || doc.HasMember("id")) return false;
        auto method = doc.FindMember("method");
        auto params = doc.FindMember("params");
        if (method == doc.MemberEnd() || params == doc.MemberEnd() || !params->value.IsObject())
            return false;
        notification n;
        auto path = params->value.FindMember("path");
        if (path != params->value.MemberEnd() && path->value.IsString())
            n.path = path->value.GetString();
        auto value = params->value.FindMember("value");
        n.value = value != params->value.MemberEnd() ? dh::to_json_text(value->value) : "null";
        notifications.push_back(std::move(n));
        return true;
    }
};

device_handler_client::device_handler_client(std::string server_name,
                                             std::chrono::milliseconds timeout)
    : target_(server_name), timeout_(timeout), impl_(std::make_unique<impl>()) {
    impl_->socket_path = std::move(server_name);
}

device_handler_client::device_handler_client(std::string host, unsigned short port,
                                             std::chrono::milliseconds timeout)
    : target_(host + ":" + std::to_string(port)),
      timeout_(timeout),
      impl_(std::make_unique<impl>()) {
    impl_->tcp = true;
    impl_->host = std::move(host);
    impl_->port = port;
}

device_handler_client::~device_handler_client() = default;

bool device_handler_client::is_connected() const {
    std::lock_guard lock(mutex_);
    return impl_->socket.is_open();
}

bool device_handler_client::connect() {
    std::lock_guard lock(mutex_);
    return impl_->socket.is_open() || impl_->connect(timeout_);
}

void device_handler_client::disconnect() {
    std::lock_guard lock(mutex_);
    boost::system::error_code ignored;
    impl_->socket.close(ignored);
}

std::string device_handler_client::call_raw(const std::string& request_line) {
    std::lock_guard lock(mutex_);
    if (!impl_->socket.is_open() && !impl_->connect(timeout_))
        throw dh_error(connection_refused, "Cannot connect to " + target_);
    std::string line = request_line;
    if (line.empty() || line.back() != '\n') line += '\n';
    switch (impl_->write_all(line, timeout_)) {
        case impl::write_result::written:
            break;
        case impl::write_result::timed_out:
            throw dh_error(dh::errc::timed_out, "Request to " + target_ + " timed out");
        case impl::write_result::failed:
            throw dh_error(connection_refused, "Connection to " + target_ + " lost");
    }
    while (true) {
        std::string response;
        if (!impl_->read_line(response, timeout_)) {
            if (impl_->socket.is_open()) {
                boost::system::error_code ignored;
                impl_->socket.close(ignored);
                throw dh_error(dh::errc::timed_out, "No answer from " + target_);
            }
            throw dh_error(connection_refused, "Connection to " + target_ + " lost");
        }
        rapidjson::Document doc;
        if (qsfpd::parse_json(response.c_str(), response.size(), doc) &&
            impl_->take_notification(doc))
            continue;
        return response;
    }
}

rapidjson::Document device_handler_client::call(const std::string& method,
                                                const rapidjson::Value& params) {
    std::string request = R"({"jsonrpc":"2.0","id":)";
    std::uint64_t id = 0;
    {
        std::lock_guard lock(mutex_);
        id = impl_->next_id++;
    }
    request += std::to_string(id);
    request += R"(,"method":)";
    dh::append_json_string(request, method);
    request += R"(,"params":)";
    dh::append_json_text(request, params);
    request += "}";
    const std::string response = call_raw(request);
    rapidjson::Document doc;
    if (!qsfpd::parse_json(response.c_str(), response.size(), doc) || !doc.IsObject())
        throw dh_error(dh::errc::io_error, "Malformed answer from " + target_);
    auto answered = doc.FindMember("id");
    const bool unattributed_error =
        answered != doc.MemberEnd() && answered->value.IsNull() && doc.HasMember("error");
    if (!unattributed_error && (answered == doc.MemberEnd() || !answered->value.IsUint64() ||
                                answered->value.GetUint64() != id)) {
        // Not the answer to this request: the stream can no longer be trusted.
        disconnect();
        throw dh_error(dh::errc::io_error, "Answer out of order from " + target_);
    }
    if (auto error = doc.FindMember("error"); error != doc.MemberEnd()) {
        int code = dh::errc::io_error;
        std::string message = "error";
        if (error->value.IsObject()) {
            if (auto c = error->value.FindMember("code");
                c != error->value.MemberEnd() && c->value.IsInt())
                code = c->value.GetInt();
            if (auto m = error->value.FindMember("message");
                m != error->value.MemberEnd() && m->value.IsString())
                message = m->value.GetString();
        }
        throw dh_error(code, message);
    }
    rapidjson::Document result;
    if (auto r = doc.FindMember("result"); r != doc.MemberEnd())
        result.CopyFrom(r->value, result.GetAllocator());
    return result;
}

namespace {
rapidjson::Document params_with(const char* key, const std::string& text) {
    rapidjson::Document params(rapidjson::kObjectType);
    params.AddMember(rapidjson::StringRef(key),
                     rapidjson::Value(text.c_str(), params.GetAllocator()), params.GetAllocator());
    return params;
}
}  // namespace

rapidjson::Document device_handler_client::get(const std::string& path) {
    return call("get", params_with("path", path));
}
rapidjson::Document device_handler_client::info(const std::string& path) {
    return call("info", params_with("path", path));
}
rapidjson::Document device_handler_client::list(const std::string& prefix) {
    return call("list", params_with("prefix", prefix));
}
rapidjson::Document device_handler_client::subscribe(const std::string& path) {
    return call("subscribe", params_with("path", path));
}
rapidjson::Document device_handler_client::unsubscribe(const std::string& path) {
    return call("unsubscribe", params_with("path", path));
}
rapidjson::Document device_handler_client::set(const std::string& path,
                                               const rapidjson::Value& value) {
    auto params = params_with("path", path);
    rapidjson::Value copy(value, params.GetAllocator());
    params.AddMember("value", copy, params.GetAllocator());
    return call("set", params);
}
rapidjson::Document device_handler_client::run(const std::string& path,
                                               const rapidjson::Value& argument) {
    auto params = params_with("path", path);
    rapidjson::Value copy(argument, params.GetAllocator());
    params.AddMember("argument", copy, params.GetAllocator());
    return call("run", params);
}

std::optional<device_handler_client::notification> device_handler_client::next_notification(
    std::chrono::milliseconds wait) {
    std::lock_guard lock(mutex_);
    const auto deadline = std::chrono::steady_clock::now() + wait;
    while (impl_->notifications.empty()) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !impl_->socket.is_open()) return std::nullopt;
        std::string line;
        if (!impl_->read_line(line, left)) {
            // A quiet period is not an error; the connection stays unless it broke.
            return std::nullopt;
        }
        rapidjson::Document doc;
        if (qsfpd::parse_json(line.c_str(), line.size(), doc)) impl_->take_notification(doc);
    }
    auto n = std::move(impl_->notifications.front());
    impl_->notifications.pop_front();
    return n;
}
