#include "device_handler_api.hpp"

#include <sys/resource.h>

#include <boost/asio.hpp>
#include <filesystem>

#include "msg_log.hpp"
#include "rpc_processor.hpp"
#include "server_connection.hpp"

namespace asio = boost::asio;
using tcp = asio::ip::tcp;
using unix_stream = asio::local::stream_protocol;

namespace {

// 1,000 clients at once need more descriptors than the usual soft limit of 1,024.
void raise_descriptor_limit(std::size_t wanted) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    const rlim_t target = std::min<rlim_t>(limit.rlim_max, static_cast<rlim_t>(wanted));
    if (limit.rlim_cur < target) {
        limit.rlim_cur = target;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

}  // namespace

struct device_handler_api::impl {
    impl(dh_db& db, const std::string& name, unsigned port, bool local_only, limits config,
         bool signals)
        : workers(config.worker_threads),
          context(std::make_shared<dh::server::server_context>(
              io, workers, db,
              dh::server::input_limits{config.max_line_bytes, config.max_pending_input_bytes,
                                       config.small_line_bytes, config.partial_line_timeout},
              config.max_output_bytes, config.clock ? config.clock : qsfpd::clock::system(), name)),
          max_connections(config.max_connections),
          stall_check_period(config.stall_check_period),
          stall_timer(io),
          handle_signals(signals),
          signal_set(io) {
        raise_descriptor_limit(config.max_connections + 64);
        if (!local_only) {
            tcp_acceptor.emplace(io);
            tcp::endpoint endpoint(tcp::v4(), static_cast<unsigned short>(port));
            tcp_acceptor->open(endpoint.protocol());
            tcp_acceptor->set_option(tcp::acceptor::reuse_address(true));
            tcp_acceptor->bind(endpoint);
            tcp_acceptor->listen(asio::socket_base::max_listen_connections);
        }
        if (!name.empty()) {
            socket_path = name;
            std::filesystem::path path(socket_path);
            if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path());
            std::error_code ignored;
            std::filesystem::remove(path, ignored);  // a socket left by an earlier run
            local_acceptor.emplace(io, unix_stream::endpoint(socket_path));
        }
    }

    ~impl() {
        workers.join();
        if (!socket_path.empty()) {
            std::error_code ignored;
            std::filesystem::remove(socket_path, ignored);
        }
    }

    template <class Acceptor, class Socket>
    void accept(Acceptor& acceptor) {
        acceptor.async_accept([this, &acceptor](boost::system::error_code ec, Socket socket) {
            if (ec == asio::error::operation_aborted || stopping) return;
            if (ec) {
                // Out of descriptors, most likely: back off instead of spinning on accept.
                MSG_LOG(msg_log::warning, context->log_tag) << "Accept failed: " << ec.message();
                auto timer =
                    std::make_shared<asio::steady_timer>(io, std::chrono::milliseconds(50));
                timer->async_wait([this, &acceptor, timer](boost::system::error_code) {
                    if (!stopping) accept<Acceptor, Socket>(acceptor);
                });
                return;
            }
            if constexpr (std::is_same_v<Socket, tcp::socket>) {
                boost::system::error_code ignored;
                socket.set_option(tcp::no_delay(true), ignored);
            }
            if (context->connections.load() >= max_connections) {
                static const std::string busy = dh::rpc::request_processor::error_line(
                    nullptr, dh::rpc::internal_error, "Too many connections");
                boost::system::error_code ignored;
                socket.non_blocking(true, ignored);
                asio::write(socket, asio::buffer(busy), ignored);
                socket.close(ignored);
            } else {
                auto connection =
                    std::make_shared<dh::server::connection<Socket>>(std::move(socket), context);
                connection->start();
                auto& open = context->open_connections;
                std::erase_if(open, [](const auto& c) { return c.expired(); });
                open.push_back(connection);
            }
            accept<Acceptor, Socket>(acceptor);
        });
    }

    // Closes connections whose unfinished line has waited too long.
    void check_stalled_lines() {
        stall_timer.expires_after(stall_check_period);
        stall_timer.async_wait([this](boost::system::error_code ec) {
            if (ec || stopping) return;
            const auto now = context->clock->now();
            for (auto& weak : context->open_connections)
                if (auto c = weak.lock()) c->close_if_stalled(now);
            check_stalled_lines();
        });
    }

    void shutdown() {
        stopping = true;
        boost::system::error_code ignored;
        if (tcp_acceptor) tcp_acceptor->close(ignored);
        if (local_acceptor) local_acceptor->close(ignored);
        signal_set.cancel(ignored);
        stall_timer.cancel();
        // Clients learn at once that the server is gone.
        for (auto& weak : context->open_connections)
            if (auto c = weak.lock()) c->close();
        context->open_connections.clear();
        io.stop();
    }

    asio::io_context io{1};
    asio::thread_pool workers;
    std::shared_ptr<dh::server::server_context> context;
    std::size_t max_connections;
    std::chrono::milliseconds stall_check_period;
    asio::steady_timer stall_timer;
    bool handle_signals;
    std::atomic<bool> stopping{false};
    asio::signal_set signal_set;
    std::optional<tcp::acceptor> tcp_acceptor;
    std::optional<unix_stream::acceptor> local_acceptor;
    std::string socket_path;
};

device_handler_api::device_handler_api(std::string name, unsigned port, bool local_only)
    : device_handler_api(std::move(name), port, local_only, limits{}) {}

device_handler_api::device_handler_api(std::string name, unsigned port, bool local_only,
                                       limits config, bool handle_signals)
    : name_(std::move(name)),
      impl_(std::make_unique<impl>(db_, name_, port, local_only, config, handle_signals)) {}

device_handler_api::~device_handler_api() = default;

unsigned short device_handler_api::tcp_port() const {
    return impl_->tcp_acceptor ? impl_->tcp_acceptor->local_endpoint().port() : 0;
}

std::size_t device_handler_api::connection_count() const {
    return impl_->context->connections.load();
}

std::size_t device_handler_api::pending_input_bytes() const {
    return impl_->context->pending_input_bytes.load();
}

void device_handler_api::add_method(
    std::string name, std::function<std::string(const rapidjson::Value* params)> handler) {
    impl_->context->processor.add_method(std::move(name), std::move(handler));
}

void device_handler_api::start() {
    if (impl_->stopping) return;
    if (impl_->tcp_acceptor) impl_->accept<tcp::acceptor, tcp::socket>(*impl_->tcp_acceptor);
    if (impl_->local_acceptor)
        impl_->accept<unix_stream::acceptor, unix_stream::socket>(*impl_->local_acceptor);
    impl_->check_stalled_lines();
    if (impl_->handle_signals) {
        impl_->signal_set.add(SIGINT);
        impl_->signal_set.add(SIGTERM);
        impl_->signal_set.async_wait([this](boost::system::error_code ec, int signal) {
            if (ec) return;
            MSG_LOG(msg_log::info, name_) << "Stopping on signal " << signal;
            impl_->shutdown();
        });
    }
    impl_->io.run();
}

void device_handler_api::stop() {
    impl_->stopping = true;
    asio::post(impl_->io, [this] { impl_->shutdown(); });
}
