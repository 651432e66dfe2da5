#pragma once

#include <rapidjson/document.h>

#include <chrono>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "dh_error.hpp"

// A client of another device handler's server (the gearbox handler on the same board, or any
// daemon over TCP). It connects on first use and again after a failure, so a server that comes
// up late is reached once it is there. Calls are serialised; each waits at most `timeout`.
class device_handler_client {
  public:
    struct notification {
        std::string path;
        std::string value;  // JSON text
    };

    // Reaches the server by its name: the Unix socket path it listens on.
    explicit device_handler_client(std::string server_name, std::chrono::milliseconds timeout =
                                                                std::chrono::milliseconds(2000));
    // Reaches a server over TCP.
    device_handler_client(std::string host, unsigned short port,
                          std::chrono::milliseconds timeout = std::chrono::milliseconds(2000));
    ~device_handler_client();
    device_handler_client(const device_handler_client&) = delete;
    device_handler_client& operator=(const device_handler_client&) = delete;

    const std::string& target() const { return target_; }
    bool is_connected() const;
    // Connects now if not connected; false (no throw) when the server is not there.
    bool connect();
    void disconnect();

    // Sends one request and returns its "result". A server error becomes a dh_error with the
    // server's code and text; no connection is -111 (ECONNREFUSED), no answer -110.
    rapidjson::Document call(const std::string& method, const rapidjson::Value& params);
    // The raw response line (for tools that print what the server said).
    std::string call_raw(const std::string& request_line);

    rapidjson::Document get(const std::string& path);
    rapidjson::Document set(const std::string& path, const rapidjson::Value& value);
    rapidjson::Document run(const std::string& path, const rapidjson::Value& argument);
    rapidjson::Document info(const std::string& path);
    rapidjson::Document list(const std::string& prefix = {});
    rapidjson::Document subscribe(const std::string& path);
    rapidjson::Document unsubscribe(const std::string& path);

    // The next "changed" notification, waiting at most `wait`.
    std::optional<notification> next_notification(std::chrono::milliseconds wait);

  private:
    struct impl;
    std::string target_;
    std::chrono::milliseconds timeout_;
    std::unique_ptr<impl> impl_;
    mutable std::mutex mutex_;
};

// One node of another handler, read through a shared client.
template <class T>
class device_handler_read_object {
  public:
    device_handler_read_object(std::shared_ptr<device_handler_client> client, std::string path)
        : client_(std::move(client)), path_(std::move(path)) {}

    const std::string& path() const { return path_; }

    T read() const;
    std::optional<T> try_read() const noexcept {
        try {
            return read();
        } catch (...) {
            return std::nullopt;
        }
    }

  private:
    std::shared_ptr<device_handler_client> client_;
    std::string path_;
};

namespace dh::detail {
template <class T>
T convert_read_result(const rapidjson::Value& value, const std::string& path) {
    auto wrong = [&] { return dh_error(dh::errc::invalid, "Unexpected value type of " + path); };
    if constexpr (std::is_same_v<T, bool>) {
        if (!value.IsBool()) throw wrong();
        return value.GetBool();
    } else if constexpr (std::is_integral_v<T> && std::is_signed_v<T>) {
        if (!value.IsInt64()) throw wrong();
        return static_cast<T>(value.GetInt64());
    } else if constexpr (std::is_integral_v<T>) {
        if (!value.IsUint64()) throw wrong();
        return static_cast<T>(value.GetUint64());
    } else if constexpr (std::is_floating_point_v<T>) {
        if (!value.IsNumber()) throw wrong();
        return static_cast<T>(value.GetDouble());
    } else {
        static_assert(std::is_same_v<T, std::string>, "unsupported read type");
        if (!value.IsString()) throw wrong();
        return std::string(value.GetString(), value.GetStringLength());
    }
}
}  // namespace dh::detail

template <class T>
T device_handler_read_object<T>::read() const {
    auto result = client_->get(path_);
    return dh::detail::convert_read_result<T>(result, path_);
}
