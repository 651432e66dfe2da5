#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "clock.hpp"
#include "dh_db.hpp"

// The framework server of one device handler: it owns the database and serves it over TCP and
// over a Unix-domain socket named by the server name, one JSON-RPC 2.0 text per line.
class device_handler_api {
  public:
    struct limits {
        std::size_t max_line_bytes = 1024 * 1024;
        std::size_t max_output_bytes = 8 * 1024 * 1024;  // a client this far behind is dropped
        std::size_t max_connections = 4096;
        unsigned worker_threads = 4;  // for requests that wait on a handler
        // Unfinished request lines of all clients together; beyond it, a client adding to a
        // partial line of at least `small_line_bytes` is closed.
        std::size_t max_pending_input_bytes = 16 * 1024 * 1024;
        std::size_t small_line_bytes = 4096;
        // A client that leaves a line unfinished this long is closed; checked every
        // `stall_check_period`.
        std::chrono::milliseconds partial_line_timeout{30000};
        std::chrono::milliseconds stall_check_period{1000};
        std::shared_ptr<qsfpd::clock> clock;  // the system's when empty
    };

    // `local_only` serves the Unix socket alone (handlers talking among themselves on a board);
    // false serves TCP on `port` as well. Port 0 takes any free port (see tcp_port()).
    device_handler_api(std::string name, unsigned port, bool local_only);
    device_handler_api(std::string name, unsigned port, bool local_only, limits config,
                       bool handle_signals = true);
    ~device_handler_api();
    device_handler_api(const device_handler_api&) = delete;
    device_handler_api& operator=(const device_handler_api&) = delete;

    dh_db& get_db() { return db_; }
    const std::string& name() const { return name_; }
    unsigned short tcp_port() const;
    std::size_t connection_count() const;
    // Bytes of request lines the clients have begun and not finished.
    std::size_t pending_input_bytes() const;

    // Adds a method beyond the database's own (see dh::rpc::request_processor::add_method);
    // before start() only.
    void add_method(std::string name,
                    std::function<std::string(const rapidjson::Value* params)> handler);

    // Serves on the calling thread until SIGTERM or SIGINT (or stop()), then returns.
    void start();
    // Safe from any thread; start() returns soon after.
    void stop();

  private:
    struct impl;
    dh_db db_;
    std::string name_;
    std::unique_ptr<impl> impl_;
};
