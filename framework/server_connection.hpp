#pragma once

#include <boost/asio.hpp>
#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "clock.hpp"

#include "dh_json.hpp"
#include "dh_session.hpp"
#include "msg_log.hpp"
#include "rpc_processor.hpp"

namespace dh::server {

// What the server needs of a connection: to end it when the server stops, and to end it when
// it has left a line unfinished for too long.
class closable {
  public:
    virtual ~closable() = default;
    virtual void close() = 0;
    virtual void close_if_stalled(qsfpd::clock::time_point now) = 0;
};

// Bounds on what clients can make the server hold.
struct input_limits {
    std::size_t max_line_bytes;
    // Unfinished lines of all connections together: many clients each holding a long partial
    // line must not exhaust the board's memory.
    std::size_t max_pending_bytes;
    // An unfinished line smaller than this is never refused for the total's sake: ordinary
    // requests are far shorter, so well-behaved clients are not punished for a flood.
    std::size_t small_line_bytes;
    // How long a line may stay unfinished before its connection is closed.
    std::chrono::milliseconds partial_line_timeout;
};

// What all connections of one server share.
// Connections hold it shared, so one that outlives the server's run touches nothing freed.
struct server_context {
    server_context(boost::asio::io_context& io_context, boost::asio::thread_pool& pool, dh_db& db,
                   input_limits input_bounds, std::size_t output_limit,
                   std::shared_ptr<qsfpd::clock> time_source, std::string tag)
        : io(io_context),
          workers(pool),
          processor(db),
          input(input_bounds),
          max_line_bytes(input_bounds.max_line_bytes),
          max_output_bytes(output_limit),
          clock(std::move(time_source)),
          log_tag(std::move(tag)) {}

    boost::asio::io_context& io;
    boost::asio::thread_pool& workers;
    rpc::request_processor processor;
    input_limits input;
    std::size_t max_line_bytes;
    std::size_t max_output_bytes;
    std::shared_ptr<qsfpd::clock> clock;
    std::string log_tag;
    // Memory held for unfinished input by all connections; written on the network thread only.
    std::atomic<std::size_t> pending_input_bytes{0};
    // A flood of refused clients is reported once per period, with a count (network thread).
    qsfpd::clock::time_point next_refusal_report{};
    unsigned unreported_refusals = 0;
    std::atomic<std::size_t> connections{0};
    // Live connections, touched on the network thread only.
    std::vector<std::weak_ptr<closable>> open_connections;
};

// The session of a connection: notifications from any thread are handed to the network thread.
class connection_session final : public dh_session {
  public:
    using deliver_fn = std::function<void(std::shared_ptr<const std::string>)>;
    explicit connection_session(deliver_fn fn) : deliver_(std::move(fn)) {}
    void deliver(std::shared_ptr<const std::string> line) override {
        if (is_open()) deliver_(std::move(line));
    }

  private:
    deliver_fn deliver_;
};

// One client. All of its state lives on the network thread; a request that may wait on a
// handler runs on a worker while the connection holds its later lines (and any notifications)
// back, so responses keep the order of the requests and a subscription's answer comes before
// its first notification.
template <class Socket>
class connection : public closable, public std::enable_shared_from_this<connection<Socket>> {
  public:
    connection(Socket socket, std::shared_ptr<server_context> context)
        : socket_(std::move(socket)),
          shared_context_(std::move(context)),
          context_(*shared_context_) {
        ++context_.connections;
    }
    ~connection() {
        --context_.connections;
        context_.pending_input_bytes -= pending_accounted_;
        if (session_) session_->close();
    }

    void start() {
        std::weak_ptr<connection> weak = this->shared_from_this();
        auto& io = context_.io;
        session_ = std::make_shared<connection_session>(
            [weak, &io](std::shared_ptr<const std::string> line) {
                boost::asio::post(io, [weak, line = std::move(line)] {
                    if (auto self = weak.lock()) self->on_notification(line);
                });
            });
        boost::system::error_code ignored;
        socket_.non_blocking(true, ignored);
        read();
    }

  private:
    // Waits for the socket to become readable, then reads what is there: one read per wake-up,
    // as a plain event loop does, rather than a speculative read that mostly finds nothing.
    void read() {
        if (reading_ || closing_ || job_running_) return;
        reading_ = true;
        socket_.async_wait(
            Socket::wait_read, [self = this->shared_from_this()](boost::system::error_code ec) {
                self->reading_ = false;
                if (ec) {
                    self->close();
                    return;
                }
                std::size_t n = self->socket_.read_some(boost::asio::buffer(self->chunk_), ec);
                if (ec == boost::asio::error::would_block || ec == boost::asio::error::try_again) {
                    self->read();
                    return;
                }
                self->on_read(ec, n);
            });
    }

    void on_read(boost::system::error_code ec, std::size_t n) {
        if (ec) {
            close();
            return;
        }
        input_.append(chunk_.data(), n);
        process_lines();
    }

    void process_lines() {
        while (!job_running_ && !closing_) {
            const auto newline = input_.find('\n', consumed_);
            if (newline == std::string::npos) break;
            if (newline - consumed_ > context_.max_line_bytes) {
                refuse_long_line();
                return;
            }
            char* line = input_.data() + consumed_;
            const std::size_t length = newline - consumed_;
            consumed_ = newline + 1;
            handle_line(line, length);
        }
        if (consumed_ > 0 && !job_running_) {
            input_.erase(0, consumed_);
            consumed_ = 0;
        }
        if (input_.size() - consumed_ > context_.max_line_bytes) {
            refuse_long_line();
            return;
        }
        if (!account_pending_input()) {
            flush();
            return;
        }
        flush();
        read();
    }

    // Tracks this connection's unfinished line in the server's total and refuses it when the
    // total is exhausted; false when the connection is being closed.
    bool account_pending_input() {
        if (closing_) return false;
        const std::size_t pending = job_running_ ? 0 : input_.size() - consumed_;
        if (pending == 0) {
            partial_since_.reset();
            // A long line once sent must not keep its buffer for the connection's life.
            if (input_.capacity() > retained_input_bytes) std::string().swap(input_);
        } else if (!partial_since_) {
            partial_since_ = context_.clock->now();
        }
        // What the line really costs: the buffer's capacity, not just the bytes in it.
        const std::size_t held = pending == 0 ? 0 : input_.capacity();
        context_.pending_input_bytes += held;
        context_.pending_input_bytes -= pending_accounted_;
        pending_accounted_ = held;
        if (context_.pending_input_bytes <= context_.input.max_pending_bytes ||
            pending < context_.input.small_line_bytes)
            return true;
        send(rpc::request_processor::error_line(nullptr, rpc::internal_error,
                                                "Server input buffer full"));
        report_refusal();
        release_pending_input();
        close_after_write();
        return false;
    }

    void report_refusal() {
        const auto now = context_.clock->now();
        if (now < context_.next_refusal_report) {
            ++context_.unreported_refusals;
            return;
        }
        const unsigned more = std::exchange(context_.unreported_refusals, 0);
        MSG_LOG(msg_log::warning, context_.log_tag)
            << "Closing a client whose unfinished line does not fit the server's input buffer"
            << (more == 0 ? std::string()
                          : " (and " + std::to_string(more) + " more since the last report)");
        context_.next_refusal_report = now + std::chrono::seconds(10);
    }

    void release_pending_input() {
        context_.pending_input_bytes -= pending_accounted_;
        pending_accounted_ = 0;
        std::string().swap(input_);
        consumed_ = 0;
        partial_since_.reset();
    }

    void refuse_long_line() {
        release_pending_input();
        send(rpc::request_processor::error_line(
            nullptr, rpc::invalid_request,
            "Request line longer than " + std::to_string(context_.max_line_bytes) + " bytes"));
        MSG_LOG(msg_log::warning, context_.log_tag)
            << "Closing a client that sent an over-long line";
        close_after_write();
    }

    // `line` lies in the input buffer with its "\n" at line[length]; it is parsed in place.
    void handle_line(char* line, std::size_t length) {
        if (length == 0 || (length == 1 && line[0] == '\r')) return;
        struct pools_reset {
            connection& c;
            ~pools_reset() {
                c.value_pool_.Clear();
                c.stack_pool_.Clear();
            }
        } reset{*this};
        rpc::request_document request(&value_pool_, 256, &stack_pool_);
        std::string response;
        if (!context_.processor.parse(line, length, request, response)) {
            send(response);
            return;
        }
        if (!context_.processor.may_block(request)) {
            const std::size_t before = output_.size();
            context_.processor.execute(request, session_, output_);
            dh::repair_utf8(output_, before);
            check_output();
            return;
        }
        job_running_ = true;
        // The worker gets its own copy (strings included: the parsed ones point into the input
        // buffer, which is reused meanwhile).
        rapidjson::StringBuffer text;
        dh::json_writer writer(text);
        request.Accept(writer);
        auto shared_request = std::make_shared<rapidjson::Document>();
        shared_request->Parse<rapidjson::kParseNanAndInfFlag>(text.GetString(), text.GetSize());
        boost::asio::post(context_.workers, [self = this->shared_from_this(), shared_request] {
            auto result = std::make_shared<std::string>();
            self->context_.processor.execute(*shared_request, self->session_, *result);
            boost::asio::post(self->context_.io, [self, result] { self->on_job_done(*result); });
        });
    }

    void on_job_done(const std::string& result) {
        job_running_ = false;
        send(result);
        for (auto& line : held_notifications_)
            dh::append_valid_utf8(output_, *line);
        held_notifications_.clear();
        check_output();
        process_lines();
    }

    void on_notification(const std::shared_ptr<const std::string>& line) {
        if (closing_) return;
        if (job_running_) {
            held_notifications_.push_back(line);
            return;
        }
        dh::append_valid_utf8(output_, *line);
        check_output();
        flush();
    }

    // Everything a client receives passes through here or is repaired like it: texts from files
    // and module memory may hold any bytes, the wire carries only valid UTF-8.
    void send(const std::string& text) {
        dh::append_valid_utf8(output_, text);
        check_output();
    }

    void check_output() {
        if (output_.size() + writing_.size() > context_.max_output_bytes && !closing_) {
            MSG_LOG(msg_log::warning, context_.log_tag)
                << "Closing a client that does not read its responses and notifications";
            output_.clear();
            close();
        }
    }

    void flush() {
        if (write_in_flight_ || output_.empty() || !socket_.is_open()) return;
        // Most answers fit the socket buffer: write them now, and wait only for what does not.
        boost::system::error_code ec;
        const std::size_t written = socket_.write_some(boost::asio::buffer(output_), ec);
        if (ec && ec != boost::asio::error::would_block && ec != boost::asio::error::try_again) {
            close();
            return;
        }
        output_.erase(0, ec ? 0 : written);
        if (output_.empty()) {
            if (close_when_written_) close();
            return;
        }
        writing_.swap(output_);
        output_.clear();
        write_in_flight_ = true;
        boost::asio::async_write(
            socket_, boost::asio::buffer(writing_),
            [self = this->shared_from_this()](boost::system::error_code ec, std::size_t) {
                self->write_in_flight_ = false;
                self->writing_.clear();
                if (ec) {
                    self->close();
                    return;
                }
                if (!self->output_.empty()) {
                    self->flush();
                } else if (self->close_when_written_) {
                    self->close();
                }
            });
    }

    void close_after_write() {
        closing_ = true;
        close_when_written_ = true;
        if (!write_in_flight_ && output_.empty()) {
            close();
        } else {
            flush();
        }
    }

  public:
    void close_if_stalled(qsfpd::clock::time_point now) override {
        if (closing_ || !partial_since_ ||
            now - *partial_since_ < context_.input.partial_line_timeout)
            return;
        send(rpc::request_processor::error_line(
            nullptr, rpc::invalid_request,
            "Request line not finished within " +
                std::to_string(context_.input.partial_line_timeout.count()) + " ms"));
        MSG_LOG(msg_log::warning, context_.log_tag)
            << "Closing a client that left a request line unfinished";
        release_pending_input();
        close_after_write();
    }

    void close() override {
        // Only the accounting: close() may run while a line is still parsed in place.
        context_.pending_input_bytes -= pending_accounted_;
        pending_accounted_ = 0;
        partial_since_.reset();
        closing_ = true;
        if (session_) session_->close();
        boost::system::error_code ignored;
        socket_.shutdown(Socket::shutdown_both, ignored);
        socket_.close(ignored);
    }

  private:
    Socket socket_;
    std::shared_ptr<server_context> shared_context_;
    server_context& context_;
    std::shared_ptr<connection_session> session_;
    std::array<char, 4096> chunk_{};
    // Parsing a line allocates from these; they are emptied after every line.
    std::array<char, 2048> value_buffer_{};
    std::array<char, 1024> stack_buffer_{};
    rapidjson::MemoryPoolAllocator<> value_pool_{value_buffer_.data(), value_buffer_.size(), 4096};
    rapidjson::MemoryPoolAllocator<> stack_pool_{stack_buffer_.data(), stack_buffer_.size(), 4096};
    static constexpr std::size_t retained_input_bytes = 64 * 1024;
    std::string input_;
    std::size_t consumed_ = 0;
    std::size_t pending_accounted_ = 0;  // this connection's share of the server's total
    std::optional<qsfpd::clock::time_point> partial_since_;
    std::string output_;
    std::string writing_;
    std::vector<std::shared_ptr<const std::string>> held_notifications_;
    bool reading_ = false;
    bool write_in_flight_ = false;
    bool job_running_ = false;
    bool closing_ = false;
    bool close_when_written_ = false;
};

}  // namespace dh::server
