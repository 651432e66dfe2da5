// qsfpd_load: drives a qsfpd server and, on the same machine in the same run, a Redis server,
// and prints throughput and latency side by side.
//
// One thread and one epoll loop do all the work, so on a two-core machine the load generator
// takes one core and the server under test the other. Every scenario runs for a fixed time
// (after a warm-up) and then drains what is still in flight within a bounded time; nothing
// leaves 127.0.0.1 (or the Unix socket named on the command line).

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <fstream>
#include <functional>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using ns_t = std::uint64_t;
constexpr ns_t ns_per_ms = 1'000'000;
constexpr ns_t ns_per_s = 1'000'000'000;

ns_t now_ns() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<ns_t>(ts.tv_sec) * ns_per_s + static_cast<ns_t>(ts.tv_nsec);
}

// ---------------------------------------------------------------------------------------------
// Latency histogram: exact below 128 ns, then 128 buckets per power of two (under 0.8% error),
// so millions of samples cost a fixed 58 KiB and recording is a few instructions.
class histogram {
  public:
    void record(ns_t value) {
        ++counts_[bucket(value)];
        ++total_;
        max_ = std::max(max_, value);
    }
    std::uint64_t count() const { return total_; }
    ns_t max() const { return max_; }
    // The value below which a fraction q of the samples lie (bucket midpoint).
    ns_t percentile(double q) const {
        if (total_ == 0) return 0;
        const auto rank = static_cast<std::uint64_t>(std::ceil(q * static_cast<double>(total_)));
        std::uint64_t seen = 0;
        for (std::size_t b = 0; b < counts_.size(); ++b) {
            seen += counts_[b];
            if (seen >= std::max<std::uint64_t>(rank, 1)) return std::min(midpoint(b), max_);
        }
        return max_;
    }

  private:
    static constexpr int sub_bits = 7;
    static constexpr std::size_t sub_count = std::size_t{1} << sub_bits;

    static std::size_t bucket(ns_t v) {
        if (v < sub_count) return static_cast<std::size_t>(v);
        const int msb = 63 - std::countl_zero(v);
        const int shift = msb - sub_bits;
        return static_cast<std::size_t>(shift + 1) * sub_count +
               static_cast<std::size_t>((v >> shift) - sub_count);
    }
    static ns_t midpoint(std::size_t b) {
        if (b < sub_count) return b;
        const auto shift = b / sub_count - 1;
        const ns_t mantissa = b % sub_count + sub_count;
        const ns_t low = mantissa << shift;
        const ns_t high = ((mantissa + 1) << shift) - 1;
        return low + (high - low) / 2;
    }

    std::array<std::uint64_t, (64 - sub_bits + 1) * sub_count> counts_{};
    std::uint64_t total_ = 0;
    ns_t max_ = 0;
};

// ---------------------------------------------------------------------------------------------
// Sockets.

class unique_fd {
  public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    unique_fd(unique_fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    unique_fd& operator=(unique_fd&& other) noexcept {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;
    ~unique_fd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    void reset() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

  private:
    int fd_ = -1;
};

// A loopback TCP port or a Unix-domain socket path.
struct endpoint {
    std::uint16_t port = 0;
    std::string unix_path;

    std::string describe() const {
        return unix_path.empty() ? "127.0.0.1:" + std::to_string(port) : "unix:" + unix_path;
    }
};

// A non-blocking connected socket, or an empty one when the connect fails within `timeout`.
unique_fd connect_to(const endpoint& ep, ns_t timeout) {
    const bool local = !ep.unix_path.empty();
    unique_fd fd(
        ::socket(local ? AF_UNIX : AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd) return {};
    int rc = 0;
    if (local) {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        if (ep.unix_path.size() >= sizeof addr.sun_path) return {};
        std::memcpy(addr.sun_path, ep.unix_path.c_str(), ep.unix_path.size() + 1);
        rc = ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
    } else {
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(ep.port);
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        rc = ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
        const int one = 1;
        ::setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    }
    if (rc != 0 && errno != EINPROGRESS && errno != EAGAIN) return {};
    if (rc != 0) {
        pollfd p{fd.get(), POLLOUT, 0};
        if (::poll(&p, 1, static_cast<int>(timeout / ns_per_ms)) != 1) return {};
        int error = 0;
        socklen_t len = sizeof error;
        if (::getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &error, &len) != 0 || error != 0)
            return {};
    }
    return fd;
}

bool wait_for(int fd, short events, ns_t deadline) {
    const ns_t now = now_ns();
    if (now >= deadline) return false;
    pollfd p{fd, events, 0};
    const auto ms = static_cast<int>(std::max<ns_t>((deadline - now) / ns_per_ms, 1));
    return ::poll(&p, 1, ms) == 1;
}

bool send_all(int fd, std::string_view data, ns_t deadline) {
    while (!data.empty()) {
        const ssize_t n = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
        if (n > 0) {
            data.remove_prefix(static_cast<std::size_t>(n));
        } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            if (!wait_for(fd, POLLOUT, deadline)) return false;
        } else {
            return false;
        }
    }
    return true;
}

// Size of the first complete reply in `buffer`, 0 while it is incomplete.
using framer = std::function<std::size_t(std::string_view)>;

std::size_t line_size(std::string_view buffer) {
    const auto newline = buffer.find('\n');
    return newline == std::string_view::npos ? 0 : newline + 1;
}

// Size of one complete RESP value at the start of `buffer`, 0 while it is incomplete: a simple
// string, error, integer, bulk string, or an array of those (a pub/sub message) nested at most
// `depth` deep.
std::size_t resp_value_size(std::string_view buffer, int depth) {
    const auto line_end = buffer.find("\r\n");
    if (line_end == std::string_view::npos || buffer.empty()) return 0;
    if (buffer[0] != '$' && (buffer[0] != '*' || depth == 0)) return line_end + 2;
    long length = 0;
    auto [ptr, ec] = std::from_chars(buffer.data() + 1, buffer.data() + line_end, length);
    if (ec != std::errc{} || length < 0) return line_end + 2;  // $-1 or *-1: nothing
    if (buffer[0] == '*') {
        std::size_t at = line_end + 2;
        for (long i = 0; i < length; ++i) {
            const auto size = resp_value_size(buffer.substr(at), depth - 1);
            if (size == 0) return 0;
            at += size;
        }
        return at;
    }
    const std::size_t total = line_end + 2 + static_cast<std::size_t>(length) + 2;
    return buffer.size() >= total ? total : 0;
}

std::size_t resp_size(std::string_view buffer) {
    return resp_value_size(buffer, 2);
}

// Reads one complete reply (or nothing, on timeout, close or error).
std::optional<std::string> read_reply(int fd, std::string& pending, const framer& frame,
                                      ns_t deadline) {
    char chunk[16 * 1024];
    while (true) {
        if (const auto size = frame(pending); size > 0) {
            std::string reply = pending.substr(0, size);
            pending.erase(0, size);
            return reply;
        }
        const ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
        if (n > 0) {
            pending.append(chunk, static_cast<std::size_t>(n));
        } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            if (!wait_for(fd, POLLIN, deadline)) return std::nullopt;
        } else {
            return std::nullopt;
        }
    }
}

// A blocking request/response client for setup and probes, never used for timing.
class simple_client {
  public:
    explicit simple_client(const endpoint& ep, framer frame) : frame_(std::move(frame)) {
        fd_ = connect_to(ep, 2 * ns_per_s);
    }
    bool connected() const { return static_cast<bool>(fd_); }
    std::optional<std::string> call(std::string_view request) {
        const ns_t deadline = now_ns() + 5 * ns_per_s;
        if (!fd_ || !send_all(fd_.get(), request, deadline)) return std::nullopt;
        return read_reply(fd_.get(), pending_, frame_, deadline);
    }
    std::optional<std::string> read() {
        return read_reply(fd_.get(), pending_, frame_, now_ns() + 5 * ns_per_s);
    }
    unique_fd release() { return std::move(fd_); }
    std::string take_pending() { return std::exchange(pending_, {}); }

  private:
    unique_fd fd_;
    framer frame_;
    std::string pending_;
};

// ---------------------------------------------------------------------------------------------
// Protocol texts.

std::string json_request(std::uint64_t id, std::string_view method, std::string_view params) {
    std::string line = R"({"jsonrpc":"2.0","id":)";
    line += std::to_string(id);
    line += R"(,"method":")";
    line += method;
    line += R"(","params":)";
    line += params;
    line += "}\n";
    return line;
}

std::string path_params(std::string_view path) {
    return R"({"path":")" + std::string(path) + "\"}";
}

// The text of a member's value in a one-line response, up to the next ',' or '}' of the same
// level; good enough for the scalars and flat objects this tool reads.
std::optional<std::string_view> member_text(std::string_view line, std::string_view key) {
    const std::string needle = "\"" + std::string(key) + "\":";
    auto at = line.find(needle);
    if (at == std::string_view::npos) return std::nullopt;
    at += needle.size();
    std::size_t end = at;
    int depth = 0;
    bool in_string = false;
    for (; end < line.size(); ++end) {
        const char c = line[end];
        if (in_string) {
            if (c == '\\')
                ++end;
            else if (c == '"')
                in_string = false;
            continue;
        }
        if (c == '"')
            in_string = true;
        else if (c == '{' || c == '[')
            ++depth;
        else if ((c == '}' || c == ']') && depth-- == 0)
            break;
        else if (c == ',' && depth == 0)
            break;
    }
    return line.substr(at, end - at);
}

template <class T>
std::optional<T> parse_number(std::string_view text) {
    T value{};
    auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc{} || ptr == text.data()) return std::nullopt;
    return value;
}

std::string resp_command(std::initializer_list<std::string_view> words) {
    std::string out = "*" + std::to_string(words.size()) + "\r\n";
    for (auto w : words) {
        out += "$" + std::to_string(w.size()) + "\r\n";
        out += w;
        out += "\r\n";
    }
    return out;
}

// What a load scenario sends and checks.
class protocol {
  public:
    virtual ~protocol() = default;
    virtual void append_request(std::string& out, std::uint64_t id) const = 0;
    virtual std::size_t reply_size(std::string_view buffer) const = 0;
    // Whether `reply` is the correct answer to request `id`.
    virtual bool check(std::string_view reply, std::uint64_t id) const = 0;
};

// A qsfpd "get"; with `expected` the result must be exactly that JSON text.
class json_get final : public protocol {
  public:
    json_get(std::string path, std::optional<std::string> expected)
        : prefix_(R"({"jsonrpc":"2.0","id":)"),
          suffix_(R"(,"method":"get","params":{"path":")" + path + "\"}}\n"),
          expected_(std::move(expected)) {}

    void append_request(std::string& out, std::uint64_t id) const override {
        char digits[24];
        auto [end, ec] = std::to_chars(digits, digits + sizeof digits, id);
        out += prefix_;
        out.append(digits, end);
        out += suffix_;
    }
    std::size_t reply_size(std::string_view buffer) const override { return line_size(buffer); }
    bool check(std::string_view reply, std::uint64_t id) const override {
        const auto id_text = member_text(reply, "id");
        if (!id_text || parse_number<std::uint64_t>(*id_text) != id) return false;
        const auto result = member_text(reply, "result");
        if (!result) return false;
        return !expected_ || *result == *expected_;
    }

  private:
    std::string prefix_;
    std::string suffix_;
    std::optional<std::string> expected_;
};

// A Redis GET of one key whose value must be `expected`.
class resp_get final : public protocol {
  public:
    resp_get(const std::string& key, std::string expected)
        : request_(resp_command({"GET", key})),
          reply_("$" + std::to_string(expected.size()) + "\r\n" + expected + "\r\n") {}

    void append_request(std::string& out, std::uint64_t) const override { out += request_; }
    std::size_t reply_size(std::string_view buffer) const override { return resp_size(buffer); }
    bool check(std::string_view reply, std::uint64_t) const override { return reply == reply_; }

  private:
    std::string request_;
    std::string reply_;
};

// ---------------------------------------------------------------------------------------------
// CPU time, to show which side of a run was saturated.

double self_cpu_seconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + t.tv_usec * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// User plus system time of another process of this machine, negative when unknown.
double process_cpu_seconds(long pid) {
    if (pid <= 0) return -1;
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    if (!std::getline(stat, text)) return -1;
    const auto name_end = text.rfind(')');
    if (name_end == std::string::npos) return -1;
    std::istringstream fields(text.substr(name_end + 2));
    std::string skip;
    for (int field = 3; field < 14; ++field)
        fields >> skip;  // state .. cmajflt
    unsigned long long user = 0, system = 0;
    if (!(fields >> user >> system)) return -1;
    return static_cast<double>(user + system) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

// Busy time of all CPUs together (user, nice, system, irq, softirq), negative when unknown.
double machine_busy_seconds() {
    std::ifstream stat("/proc/stat");
    std::string label;
    unsigned long long user = 0, nice = 0, system = 0, idle = 0, iowait = 0, irq = 0, softirq = 0;
    if (!(stat >> label >> user >> nice >> system >> idle >> iowait >> irq >> softirq) ||
        label != "cpu")
        return -1;
    return static_cast<double>(user + nice + system + irq + softirq) /
           static_cast<double>(::sysconf(_SC_CLK_TCK));
}

// CPU use over a measured window, in percent of one core. `other` is what the rest of the
// machine used meanwhile (another build, say): a large figure there makes the row unreliable.
struct cpu_meter {
    long pid = 0;
    double server_start = -1, self_start = 0, machine_start = -1;
    double server_cpu = -1, self_cpu = -1, other_cpu = -1;

    void start() {
        server_start = process_cpu_seconds(pid);
        self_start = self_cpu_seconds();
        machine_start = machine_busy_seconds();
    }
    void stop(double window_s) {
        const double server_now = process_cpu_seconds(pid);
        const double machine_now = machine_busy_seconds();
        if (server_start >= 0 && server_now >= 0)
            server_cpu = 100.0 * (server_now - server_start) / window_s;
        self_cpu = 100.0 * (self_cpu_seconds() - self_start) / window_s;
        if (machine_start >= 0 && machine_now >= 0 && server_cpu >= 0) {
            const double machine = 100.0 * (machine_now - machine_start) / window_s;
            other_cpu = std::max(0.0, machine - server_cpu - self_cpu);
        }
    }
};

// Waits at most `limit` for the machine to go idle (under 15% of one core busy over a quarter
// second, the servers under test included), so that a scenario does not start in the middle of
// someone else's build. Returns whether it did.
bool wait_for_quiet(ns_t limit) {
    const ns_t end = now_ns() + limit;
    do {
        const double before = machine_busy_seconds();
        ::usleep(250'000);
        const double after = machine_busy_seconds();
        if (before < 0 || after < 0 || (after - before) / 0.25 < 0.15) return true;
    } while (now_ns() < end);
    return false;
}

// A row whose window saw this much other work (percent of one core) is run again.
constexpr double disturbed_cpu = 20;

// ---------------------------------------------------------------------------------------------
// Results.

struct result_row {
    std::string target;
    std::string operation;
    std::string clients;  // "50" connections, or "100 subs"
    std::size_t connections = 0;
    std::size_t depth = 0;
    double ops_per_s = 0;
    std::uint64_t samples = 0;
    ns_t p50 = 0, p99 = 0, p999 = 0, max = 0;
    double server_cpu = -1, client_cpu = -1, other_cpu = -1;
    long server_rss_kb = -1;  // qsfpd's VmRSS once the scenario's connections are gone
    std::uint64_t errors = 0;
    std::string first_error;
    int attempt = 1;   // which run of the scenario this row is
    int attempts = 1;  // how many runs there were (more when other work disturbed them)
    bool redis = false;
    bool stored = false;

    void take(const histogram& h) {
        samples = h.count();
        p50 = h.percentile(0.50);
        p99 = h.percentile(0.99);
        p999 = h.percentile(0.999);
        max = h.max();
    }
    void fail(std::string text) {
        ++errors;
        if (first_error.empty()) first_error = std::move(text);
    }
};

struct timing {
    ns_t warmup = 500 * ns_per_ms;
    ns_t duration = 3 * ns_per_s;
    ns_t drain = 2 * ns_per_s;  // for replies still in flight when the window closes
};

// ---------------------------------------------------------------------------------------------
// Request/response load: `depth` requests in flight on each of `connections` connections.

struct load_connection {
    unique_fd fd;
    std::vector<char> in = std::vector<char>(64 * 1024);
    std::size_t in_begin = 0, in_end = 0;
    std::string out;
    std::size_t out_sent = 0;
    bool wants_write = false;
    struct pending {
        std::uint64_t id;
        ns_t sent;
    };
    std::deque<pending> in_flight;
    std::uint64_t next_id = 1;
};

class get_load {
  public:
    get_load(const endpoint& ep, const protocol& proto, std::size_t connections, std::size_t depth,
             const timing& t, long server_pid)
        : ep_(ep), proto_(proto), conns_(connections), depth_(depth), timing_(t) {
        cpu_.pid = server_pid;
    }

    void run(result_row& row) {
        row.connections = conns_.size();
        row.depth = depth_;
        row.clients = std::to_string(conns_.size());
        epoll_ = unique_fd(::epoll_create1(EPOLL_CLOEXEC));
        for (std::size_t i = 0; i < conns_.size(); ++i) {
            conns_[i].fd = connect_to(ep_, 2 * ns_per_s);
            if (!conns_[i].fd) {
                row.fail("cannot connect to " + ep_.describe());
                return;
            }
            epoll_event ev{};
            ev.events = EPOLLIN;
            ev.data.u64 = i;
            ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, conns_[i].fd.get(), &ev);
        }
        const ns_t start = now_ns();
        measure_begin_ = start + timing_.warmup;
        measure_end_ = measure_begin_ + timing_.duration;
        const ns_t hard_end = measure_end_ + timing_.drain;
        for (auto& c : conns_)
            issue(c, depth_, row);

        std::array<epoll_event, 256> events{};
        bool measuring = false;
        bool window_closed = false;
        while (true) {
            const ns_t now = now_ns();
            if (!measuring && now >= measure_begin_) {
                cpu_.start();
                measuring = true;
            }
            if (!window_closed && now >= measure_end_) {
                cpu_.stop(static_cast<double>(timing_.duration) / ns_per_s);
                window_closed = true;
            }
            if (window_closed && (outstanding_ == 0 || now >= hard_end)) break;
            const int n =
                ::epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), 5);
            for (int i = 0; i < n; ++i) {
                auto& c = conns_[events[static_cast<std::size_t>(i)].data.u64];
                const auto what = events[static_cast<std::size_t>(i)].events;
                if (!c.fd) continue;
                if (what & (EPOLLIN | EPOLLERR | EPOLLHUP)) on_readable(c, row);
                if (c.fd && (what & EPOLLOUT)) flush(c, row);
            }
        }
        if (outstanding_ > 0)
            row.fail(std::to_string(outstanding_) + " replies missing after the drain time");
        row.errors += outstanding_ > 0 ? outstanding_ - 1 : 0;
        row.ops_per_s =
            static_cast<double>(completed_) / (static_cast<double>(timing_.duration) / ns_per_s);
        row.take(latency_);
        row.server_cpu = cpu_.server_cpu;
        row.client_cpu = cpu_.self_cpu;
        row.other_cpu = cpu_.other_cpu;
    }

  private:
    void issue(load_connection& c, std::size_t count, result_row& row) {
        const ns_t sent = now_ns();
        for (std::size_t i = 0; i < count; ++i) {
            proto_.append_request(c.out, c.next_id);
            c.in_flight.push_back({c.next_id++, sent});
        }
        outstanding_ += count;
        flush(c, row);
    }

    void flush(load_connection& c, result_row& row) {
        while (c.out_sent < c.out.size()) {
            const ssize_t n = ::send(c.fd.get(), c.out.data() + c.out_sent,
                                     c.out.size() - c.out_sent, MSG_NOSIGNAL);
            if (n > 0) {
                c.out_sent += static_cast<std::size_t>(n);
            } else if (n < 0 && errno == EINTR) {
                continue;
            } else if (n < 0 && errno == EAGAIN) {
                watch_writes(c, true);
                return;
            } else {
                drop(c, row, "send failed");
                return;
            }
        }
        c.out.clear();
        c.out_sent = 0;
        watch_writes(c, false);
    }

    void watch_writes(load_connection& c, bool on) {
        if (c.wants_write == on) return;
        c.wants_write = on;
        epoll_event ev{};
        ev.events = EPOLLIN | (on ? EPOLLOUT : 0u);
        ev.data.u64 = static_cast<std::uint64_t>(&c - conns_.data());
        ::epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, c.fd.get(), &ev);
    }

    void drop(load_connection& c, result_row& row, const std::string& why) {
        row.fail(why + " on " + ep_.describe());
        row.errors += c.in_flight.size();
        outstanding_ -= c.in_flight.size();
        c.in_flight.clear();
        c.fd.reset();
    }

    void on_readable(load_connection& c, result_row& row) {
        std::size_t answered = 0;
        // Bounded: each pass either reads bytes or ends the loop, and a socket holds finitely many.
        for (int pass = 0; pass < 64; ++pass) {
            if (c.in_begin == c.in_end) c.in_begin = c.in_end = 0;
            if (c.in_end == c.in.size()) {
                if (c.in_begin == 0) {
                    drop(c, row, "reply larger than the read buffer");
                    return;
                }
                std::memmove(c.in.data(), c.in.data() + c.in_begin, c.in_end - c.in_begin);
                c.in_end -= c.in_begin;
                c.in_begin = 0;
            }
            const ssize_t n = ::recv(c.fd.get(), c.in.data() + c.in_end, c.in.size() - c.in_end, 0);
            if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) {
                drop(c, row, n == 0 ? "connection closed by the server" : "receive failed");
                return;
            }
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) break;
            const ns_t arrived = now_ns();
            c.in_end += static_cast<std::size_t>(n);
            while (true) {
                const std::string_view buffer(c.in.data() + c.in_begin, c.in_end - c.in_begin);
                const std::size_t size = proto_.reply_size(buffer);
                if (size == 0) break;
                const std::string_view reply = buffer.substr(0, size);
                c.in_begin += size;
                if (c.in_flight.empty()) {
                    row.fail("unsolicited reply: " + std::string(reply));
                    continue;
                }
                const auto request = c.in_flight.front();
                c.in_flight.pop_front();
                --outstanding_;
                ++answered;
                if (!proto_.check(reply, request.id)) {
                    row.fail("wrong reply: " + std::string(reply.substr(0, 200)));
                } else if (arrived >= measure_begin_ && arrived < measure_end_) {
                    latency_.record(arrived - request.sent);
                    ++completed_;
                }
            }
        }
        if (answered > 0 && now_ns() < measure_end_) issue(c, answered, row);
    }

    endpoint ep_;
    const protocol& proto_;
    std::vector<load_connection> conns_;
    std::size_t depth_;
    timing timing_;
    cpu_meter cpu_;
    unique_fd epoll_;
    ns_t measure_begin_ = 0, measure_end_ = 0;
    std::uint64_t outstanding_ = 0;
    std::uint64_t completed_ = 0;
    histogram latency_;
};

// ---------------------------------------------------------------------------------------------
// Notification delay: one connection changes a value, `subscribers` connections subscribed to it
// each time the arrival of the change. The next change is sent when every notification of the
// previous one has arrived (or after a bounded wait). qsfpd is timed on a set of its counter
// config param (mirrored to a status value), Redis on PUBLISH to a channel, the nearest thing
// it has.

// How one kind of server is told of a change and tells its subscribers.
class change_protocol {
  public:
    virtual ~change_protocol() = default;
    virtual std::string target() const = 0;
    // One row each: the kinds of notification one change causes per subscriber.
    virtual std::vector<std::string> streams() const = 0;
    virtual std::size_t reply_size(std::string_view buffer) const = 0;
    virtual std::string subscribe_request() const = 0;
    virtual std::size_t subscribe_replies() const = 0;
    virtual bool subscribe_ok(std::string_view reply) const = 0;
    // Where to count up from: a change must differ from the value kept.
    virtual std::optional<std::int64_t> base_value(simple_client& changer) const = 0;
    virtual std::string change_request(std::uint64_t id, std::int64_t value) const = 0;
    virtual bool change_ok(std::string_view reply, std::uint64_t id,
                           std::size_t subscribers) const = 0;
    // The stream and value of a subscriber's message; nothing for anything else.
    virtual std::optional<std::pair<std::size_t, std::int64_t>> message(
        std::string_view reply) const = 0;
};

class qsfpd_changes final : public change_protocol {
  public:
    qsfpd_changes(std::string counter, std::string ticker)
        : counter_(std::move(counter)),
          ticker_(std::move(ticker)),
          counter_key_("\"" + counter_ + "\""),
          ticker_key_("\"" + ticker_ + "\"") {}

    std::string target() const override { return "qsfpd"; }
    std::vector<std::string> streams() const override {
        return {"notify " + counter_ + " (config param)", "notify " + ticker_ + " (status value)"};
    }
    std::size_t reply_size(std::string_view buffer) const override { return line_size(buffer); }
    std::string subscribe_request() const override {
        return json_request(1, "subscribe", path_params(counter_)) +
               json_request(2, "subscribe", path_params(ticker_));
    }
    std::size_t subscribe_replies() const override { return 2; }
    bool subscribe_ok(std::string_view reply) const override {
        return member_text(reply, "result").has_value();
    }
    std::optional<std::int64_t> base_value(simple_client& changer) const override {
        const auto reply = changer.call(json_request(1, "get", path_params(counter_)));
        const auto text = reply ? member_text(*reply, "result") : std::nullopt;
        return text ? parse_number<std::int64_t>(*text) : std::nullopt;
    }
    std::string change_request(std::uint64_t id, std::int64_t value) const override {
        return json_request(
            id, "set", R"({"path":")" + counter_ + R"(","value":)" + std::to_string(value) + "}");
    }
    bool change_ok(std::string_view reply, std::uint64_t id, std::size_t) const override {
        const auto id_text = member_text(reply, "id");
        return id_text && parse_number<std::uint64_t>(*id_text) == id &&
               member_text(reply, "result") == "true";
    }
    std::optional<std::pair<std::size_t, std::int64_t>> message(
        std::string_view reply) const override {
        if (member_text(reply, "method") != "\"changed\"") return std::nullopt;
        const auto path = member_text(reply, "path");
        const auto text = member_text(reply, "value");
        const auto value = text ? parse_number<std::int64_t>(*text) : std::nullopt;
        if (!path || !value) return std::nullopt;
        if (*path == counter_key_) return std::pair{std::size_t{0}, *value};
        if (*path == ticker_key_) return std::pair{std::size_t{1}, *value};
        return std::nullopt;
    }

  private:
    std::string counter_, ticker_, counter_key_, ticker_key_;
};

// The elements of a RESP array of bulk strings and integers, as text.
std::vector<std::string_view> resp_elements(std::string_view reply) {
    std::vector<std::string_view> out;
    if (reply.empty() || reply[0] != '*') return out;
    auto at = reply.find("\r\n");
    long count = 0;
    std::from_chars(reply.data() + 1, reply.data() + at, count);
    at += 2;
    for (long i = 0; i < count && at < reply.size(); ++i) {
        const auto end = reply.find("\r\n", at);
        if (end == std::string_view::npos) return {};
        if (reply[at] == '$') {
            long length = 0;
            std::from_chars(reply.data() + at + 1, reply.data() + end, length);
            if (length < 0 || end + 2 + static_cast<std::size_t>(length) > reply.size()) return {};
            out.push_back(reply.substr(end + 2, static_cast<std::size_t>(length)));
            at = end + 2 + static_cast<std::size_t>(length) + 2;
        } else {
            out.push_back(reply.substr(at + 1, end - at - 1));
            at = end + 2;
        }
    }
    return out;
}

class redis_changes final : public change_protocol {
  public:
    explicit redis_changes(std::string channel) : channel_(std::move(channel)) {}

    std::string target() const override { return "Redis"; }
    std::vector<std::string> streams() const override { return {"PUBLISH to subscribers"}; }
    std::size_t reply_size(std::string_view buffer) const override { return resp_size(buffer); }
    std::string subscribe_request() const override { return resp_command({"SUBSCRIBE", channel_}); }
    std::size_t subscribe_replies() const override { return 1; }
    bool subscribe_ok(std::string_view reply) const override {
        const auto e = resp_elements(reply);
        return e.size() == 3 && e[0] == "subscribe" && e[1] == channel_;
    }
    // Redis keeps no value on a channel: every message is delivered.
    std::optional<std::int64_t> base_value(simple_client&) const override { return 0; }
    std::string change_request(std::uint64_t, std::int64_t value) const override {
        return resp_command({"PUBLISH", channel_, std::to_string(value)});
    }
    bool change_ok(std::string_view reply, std::uint64_t, std::size_t subscribers) const override {
        return reply == ":" + std::to_string(subscribers) + "\r\n";
    }
    std::optional<std::pair<std::size_t, std::int64_t>> message(
        std::string_view reply) const override {
        const auto e = resp_elements(reply);
        if (e.size() != 3 || e[0] != "message" || e[1] != channel_) return std::nullopt;
        const auto value = parse_number<std::int64_t>(e[2]);
        if (!value) return std::nullopt;
        return std::pair{std::size_t{0}, *value};
    }

  private:
    std::string channel_;
};

struct notify_rows {
    std::vector<result_row> streams;
    histogram change_reply;   // set or PUBLISH round trip as the changing connection sees it
    histogram all_delivered;  // change sent until the last notification of it arrived
    std::uint64_t late = 0;

    void fail(const std::string& why) {
        for (auto& row : streams)
            row.fail(why);
    }
};

struct reply_reader {
    unique_fd fd;
    std::string buffer;

    // Appends what the socket has and returns when it would block; false when it is closed.
    bool fill() {
        char chunk[16 * 1024];
        for (int pass = 0; pass < 64; ++pass) {
            const ssize_t n = ::recv(fd.get(), chunk, sizeof chunk, 0);
            if (n > 0) {
                buffer.append(chunk, static_cast<std::size_t>(n));
                continue;
            }
            if (n < 0 && errno == EINTR) continue;
            return n < 0 && errno == EAGAIN;
        }
        return true;
    }
    std::optional<std::string> next(const change_protocol& proto) {
        const auto size = proto.reply_size(buffer);
        if (size == 0) return std::nullopt;
        std::string reply = buffer.substr(0, size);
        buffer.erase(0, size);
        return reply;
    }
};

void run_notify(const endpoint& ep, const change_protocol& proto, std::size_t subscribers,
                const timing& t, std::size_t max_changes, long server_pid, notify_rows& rows) {
    constexpr ns_t change_timeout = 1 * ns_per_s;
    for (const auto& name : proto.streams()) {
        auto& row = rows.streams.emplace_back();
        row.target = proto.target();
        row.operation = name;
        row.clients = std::to_string(subscribers) + (subscribers == 1 ? " sub" : " subs");
        row.connections = subscribers;
        row.depth = 1;
        row.redis = proto.target() == "Redis";
    }
    const std::size_t streams = rows.streams.size();
    const framer frame = [&proto](std::string_view b) { return proto.reply_size(b); };

    simple_client changer(ep, frame);
    if (!changer.connected()) return rows.fail("cannot connect to " + ep.describe());
    std::vector<reply_reader> subs(subscribers);
    for (auto& sub : subs) {
        simple_client client(ep, frame);
        if (!client.connected()) return rows.fail("cannot connect to " + ep.describe());
        auto reply = client.call(proto.subscribe_request());
        for (std::size_t i = 0; reply && proto.subscribe_ok(*reply); ++i) {
            if (i + 1 == proto.subscribe_replies()) break;
            reply = client.read();
        }
        if (!reply || !proto.subscribe_ok(*reply))
            return rows.fail("subscribe failed: " + reply.value_or("no reply"));
        sub.buffer = client.take_pending();
        sub.fd = client.release();
    }
    const auto base = proto.base_value(changer);
    if (!base) return rows.fail("cannot read the value to change");
    reply_reader change_conn{changer.release(), changer.take_pending()};

    unique_fd epoll(::epoll_create1(EPOLL_CLOEXEC));
    for (std::size_t i = 0; i <= subscribers; ++i) {
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.u64 = i;
        ::epoll_ctl(epoll.get(), EPOLL_CTL_ADD,
                    i < subscribers ? subs[i].fd.get() : change_conn.fd.get(), &ev);
    }

    std::vector<histogram> delays(streams);
    cpu_meter cpu;
    cpu.pid = server_pid;
    const ns_t measure_begin = now_ns() + t.warmup;
    const ns_t measure_end = measure_begin + t.duration;
    bool measuring = false;
    std::uint64_t recorded = 0;
    std::array<epoll_event, 256> events{};
    const std::size_t expected = streams * subscribers;

    for (std::uint64_t change = 1; recorded < max_changes; ++change) {
        const ns_t before = now_ns();
        if (before >= measure_end) break;
        if (!measuring && before >= measure_begin) {
            cpu.start();
            measuring = true;
        }
        const std::int64_t value = *base + static_cast<std::int64_t>(change);
        const std::string request = proto.change_request(change, value);
        const ns_t sent = now_ns();
        if (!send_all(change_conn.fd.get(), request, sent + change_timeout))
            return rows.fail("cannot send a change");
        bool change_done = false;
        std::size_t got = 0;
        ns_t last_arrival = 0;
        const ns_t deadline = sent + change_timeout;
        while (!(change_done && got == expected)) {
            const ns_t now = now_ns();
            if (now >= deadline) {
                if (got < expected)
                    rows.fail(std::to_string(expected - got) +
                              " notifications missing for one change");
                if (!change_done) rows.fail("no reply to a change within a second");
                break;
            }
            const int wait_ms = static_cast<int>(std::max<ns_t>((deadline - now) / ns_per_ms, 1));
            const int n =
                ::epoll_wait(epoll.get(), events.data(), static_cast<int>(events.size()), wait_ms);
            for (int i = 0; i < n; ++i) {
                const auto index = events[static_cast<std::size_t>(i)].data.u64;
                auto& reader = index < subscribers ? subs[index] : change_conn;
                if (!reader.fill()) return rows.fail("connection closed by the server");
                const ns_t arrived = now_ns();
                while (auto reply = reader.next(proto)) {
                    if (index == subscribers) {
                        if (!proto.change_ok(*reply, change, subscribers))
                            rows.fail("wrong reply to a change: " + *reply);
                        if (measuring) rows.change_reply.record(arrived - sent);
                        change_done = true;
                        continue;
                    }
                    const auto m = proto.message(*reply);
                    if (!m) {
                        rows.fail("unexpected message for a subscriber: " + *reply);
                        continue;
                    }
                    if (m->second != value) {
                        ++rows.late;  // a change given up on earlier
                        continue;
                    }
                    ++got;
                    if (measuring) delays[m->first].record(arrived - sent);
                    last_arrival = arrived;
                }
            }
        }
        if (measuring && change_done && got == expected) {
            rows.all_delivered.record(last_arrival - sent);
            ++recorded;
        }
    }
    const ns_t measure_stop = std::max(now_ns(), measure_begin + 1);
    const double window = static_cast<double>(measure_stop - measure_begin) / ns_per_s;
    if (measuring) cpu.stop(window);
    for (std::size_t i = 0; i < streams; ++i) {
        auto& row = rows.streams[i];
        row.ops_per_s = static_cast<double>(recorded) / window;
        row.server_cpu = cpu.server_cpu;
        row.client_cpu = cpu.self_cpu;
        row.other_cpu = cpu.other_cpu;
        row.take(delays[i]);
    }
}

// ---------------------------------------------------------------------------------------------
// Options.

struct options {
    std::uint16_t qsfpd_port = 0;
    std::string qsfpd_unix;
    std::uint16_t redis_port = 0;
    timing time;
    std::vector<std::size_t> connections{1, 50};
    std::vector<std::size_t> depths{1, 16};
    std::vector<std::size_t> subscribers{1, 100};
    std::size_t max_changes = 2000;
    std::string stored_path = "data/lane/0/rxPower";
    std::string volatile_path = "data/lane/0/laserTemperature";
    std::string process_path = "bench/rss";
    double rss_goal_kb = 8192;
    ns_t quiet_wait = 10 * ns_per_s;
    int retries = 1;
    // Which kinds of rows to run, for profiling one of them alone.
    bool run_redis = true, run_stored = true, run_volatile = true, run_unix = true,
         run_notify = true;
};

void usage(std::ostream& out) {
    out << "usage: qsfpd_load --qsfpd-port P [options]\n"
           "  --qsfpd-port P       bench_server's TCP port on 127.0.0.1 (required)\n"
           "  --qsfpd-unix PATH    also measure stored gets over this Unix socket\n"
           "  --redis-port P       Redis on 127.0.0.1 for the side-by-side rows\n"
           "  --duration S         measured seconds per scenario (default 3, at most 60)\n"
           "  --warmup S           unmeasured seconds before each scenario (default 0.5)\n"
           "  --connections LIST   e.g. 1,50 (default)\n"
           "  --depth LIST         requests in flight per connection, e.g. 1,16 (default)\n"
           "  --subscribers LIST   e.g. 1,100 (default); empty skips notification timing\n"
           "  --changes N          at most this many timed changes per subscriber count (2000)\n"
           "  --stored-path P      stored node to get (default data/lane/0/rxPower)\n"
           "  --volatile-path P    volatile node to get (default data/lane/0/laserTemperature)\n"
           "  --only LIST          run only these of redis,stored,volatile,unix,notify\n"
           "  --quiet-wait S       before each scenario wait at most S for an idle machine (10)\n"
           "  --retries N          run a scenario disturbed by other work again, N times (1)\n";
}

std::optional<std::vector<std::size_t>> parse_list(std::string_view text, std::size_t limit) {
    std::vector<std::size_t> values;
    while (!text.empty()) {
        const auto comma = text.find(',');
        const auto item = text.substr(0, comma);
        const auto value = parse_number<std::size_t>(item);
        if (!value || *value == 0 || *value > limit) return std::nullopt;
        values.push_back(*value);
        if (comma == std::string_view::npos) break;
        text.remove_prefix(comma + 1);
    }
    return values;
}

std::optional<ns_t> parse_seconds(std::string_view text, double limit) {
    const std::string copy(text);
    char* end = nullptr;
    const double value = std::strtod(copy.c_str(), &end);
    if (end == copy.c_str() || *end != '\0' || !(value >= 0) || value > limit) return std::nullopt;
    return static_cast<ns_t>(value * ns_per_s);
}

std::optional<options> parse_options(int argc, char* argv[]) {
    options o;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            usage(std::cout);
            std::exit(0);
        }
        if (i + 1 >= argc) return std::nullopt;
        const std::string_view value = argv[++i];
        auto port = [&](std::uint16_t& to) {
            const auto p = parse_number<unsigned>(value);
            if (!p || *p == 0 || *p > 65535) return false;
            to = static_cast<std::uint16_t>(*p);
            return true;
        };
        bool ok = true;
        if (arg == "--qsfpd-port")
            ok = port(o.qsfpd_port);
        else if (arg == "--redis-port")
            ok = port(o.redis_port);
        else if (arg == "--qsfpd-unix")
            o.qsfpd_unix = value;
        else if (arg == "--stored-path")
            o.stored_path = value;
        else if (arg == "--volatile-path")
            o.volatile_path = value;
        else if (arg == "--duration" || arg == "--warmup") {
            const auto s = parse_seconds(value, arg == "--duration" ? 60 : 10);
            ok = s && (arg == "--warmup" || *s > 0);
            if (ok) (arg == "--duration" ? o.time.duration : o.time.warmup) = *s;
        } else if (arg == "--connections" || arg == "--depth") {
            const auto list = parse_list(value, arg == "--depth" ? 256 : 1000);
            ok = list && !list->empty();
            if (ok) (arg == "--depth" ? o.depths : o.connections) = *list;
        } else if (arg == "--subscribers") {
            const auto list = parse_list(value, 1000);
            ok = list.has_value();
            if (ok) o.subscribers = *list;
        } else if (arg == "--only") {
            o.run_redis = o.run_stored = o.run_volatile = o.run_unix = o.run_notify = false;
            std::string_view rest = value;
            while (ok && !rest.empty()) {
                const auto comma = rest.find(',');
                const auto item = rest.substr(0, comma);
                if (item == "redis")
                    o.run_redis = true;
                else if (item == "stored")
                    o.run_stored = true;
                else if (item == "volatile")
                    o.run_volatile = true;
                else if (item == "unix")
                    o.run_unix = true;
                else if (item == "notify")
                    o.run_notify = true;
                else
                    ok = false;
                rest =
                    comma == std::string_view::npos ? std::string_view{} : rest.substr(comma + 1);
            }
        } else if (arg == "--quiet-wait") {
            const auto s = parse_seconds(value, 600);
            ok = s.has_value();
            if (ok) o.quiet_wait = *s;
        } else if (arg == "--retries") {
            const auto n = parse_number<int>(value);
            ok = n && *n >= 0 && *n <= 5;
            if (ok) o.retries = *n;
        } else if (arg == "--changes") {
            const auto n = parse_number<std::size_t>(value);
            ok = n && *n > 0 && *n <= 100'000;
            if (ok) o.max_changes = *n;
        } else {
            ok = false;
        }
        if (!ok) return std::nullopt;
    }
    if (o.qsfpd_port == 0) return std::nullopt;
    return o;
}

// ---------------------------------------------------------------------------------------------
// Report.

std::string machine_line() {
    std::ifstream cpuinfo("/proc/cpuinfo");
    std::string line, model = "unknown";
    while (std::getline(cpuinfo, line)) {
        if (line.rfind("model name", 0) == 0) {
            model = line.substr(line.find(':') + 2);
            break;
        }
    }
    std::ifstream loadavg("/proc/loadavg");
    std::string load;
    std::getline(loadavg, load);
    return "machine: " + std::to_string(::sysconf(_SC_NPROCESSORS_ONLN)) + " CPUs, " + model +
           "; load average " +
           load.substr(0, load.find(' ', load.find(' ', load.find(' ') + 1) + 1));
}

std::string fixed(double value, int decimals) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}
std::string micros(ns_t value) {
    return fixed(static_cast<double>(value) / 1000.0, value < 100'000 ? 1 : 0);
}
std::string percent(double value) {
    return value < 0 ? "-" : fixed(value, 0) + "%";
}

const result_row* redis_match(const std::vector<result_row>& rows, const result_row& row) {
    for (const auto& r : rows)
        if (r.redis && r.operation == "GET" && r.connections == row.connections &&
            r.depth == row.depth)
            return &r;
    return nullptr;
}

void print_table(const std::vector<result_row>& rows) {
    std::printf(
        "| target | operation | conns | in flight/conn | ops/s | p50 µs | p99 µs | p99.9 µs | "
        "qsfpd/Redis "
        "| server CPU | client CPU | other CPU | qsfpd RSS kB | errors |\n");
    std::printf("|---|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|\n");
    for (const auto& r : rows) {
        std::string ratio = "-";
        if (!r.redis && r.target == "qsfpd" && r.operation.starts_with("get")) {
            if (const auto* redis = redis_match(rows, r); redis && redis->ops_per_s > 0)
                ratio = fixed(r.ops_per_s / redis->ops_per_s, 2);
        }
        std::printf("| %s | %s | %s | %zu | %s | %s | %s | %s | %s | %s | %s | %s | %s | %llu |\n",
                    r.target.c_str(), r.operation.c_str(), r.clients.c_str(), r.depth,
                    fixed(r.ops_per_s, 0).c_str(), micros(r.p50).c_str(), micros(r.p99).c_str(),
                    micros(r.p999).c_str(), ratio.c_str(), percent(r.server_cpu).c_str(),
                    percent(r.client_cpu).c_str(), percent(r.other_cpu).c_str(),
                    r.server_rss_kb < 0 ? "-" : std::to_string(r.server_rss_kb).c_str(),
                    static_cast<unsigned long long>(r.errors));
    }
}

struct process_report {
    long pid = 0;
    long rss_kb = -1;
    long hwm_kb = -1;
    long anon_kb = -1;
    long file_kb = -1;
};

std::optional<process_report> read_process_report(const endpoint& ep, const std::string& path) {
    simple_client client(ep, line_size);
    const auto reply = client.call(json_request(1, "run", path_params(path)));
    if (!reply) return std::nullopt;
    process_report report;
    auto number = [&](std::string_view key) {
        const auto text = member_text(*reply, key);
        return text ? parse_number<long>(*text).value_or(-1) : -1;
    };
    report.pid = number("pid");
    report.rss_kb = number("vmRssKb");
    report.hwm_kb = number("vmHwmKb");
    report.anon_kb = number("rssAnonKb");
    report.file_kb = number("rssFileKb");
    if (report.rss_kb < 0) return std::nullopt;
    return report;
}

}  // namespace

int main(int argc, char* argv[]) {
    const auto opts = parse_options(argc, argv);
    if (!opts) {
        usage(std::cerr);
        return 2;
    }
    // A thousand subscribers plus load connections need more than the usual 1,024 descriptors.
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }

    const endpoint qsfpd{opts->qsfpd_port, {}};
    const endpoint redis{opts->redis_port, {}};
    std::printf("%s\n", machine_line().c_str());
    std::printf("qsfpd %s%s%s, Redis %s; %.1f s per scenario after %.1f s warm-up\n\n",
                qsfpd.describe().c_str(),
                opts->qsfpd_unix.empty() ? "" : " and unix:", opts->qsfpd_unix.c_str(),
                opts->redis_port ? redis.describe().c_str() : "not measured",
                static_cast<double>(opts->time.duration) / ns_per_s,
                static_cast<double>(opts->time.warmup) / ns_per_s);

    // Probes: the values the load must see, and the processes whose CPU time is read.
    simple_client probe(qsfpd, line_size);
    const auto stored_reply = probe.call(json_request(1, "get", path_params(opts->stored_path)));
    const auto stored_value = stored_reply ? member_text(*stored_reply, "result") : std::nullopt;
    const auto volatile_reply =
        probe.call(json_request(2, "get", path_params(opts->volatile_path)));
    if (!stored_value || !volatile_reply || !member_text(*volatile_reply, "result")) {
        std::fprintf(stderr, "qsfpd_load: %s does not answer gets of %s and %s: %s %s\n",
                     qsfpd.describe().c_str(), opts->stored_path.c_str(),
                     opts->volatile_path.c_str(), stored_reply.value_or("(no reply)").c_str(),
                     volatile_reply.value_or("(no reply)").c_str());
        return 1;
    }
    const std::string expected(*stored_value);
    const auto before = read_process_report(qsfpd, opts->process_path);
    const long qsfpd_pid = before ? before->pid : 0;
    if (before)
        std::printf(
            "qsfpd server pid %ld before the load: VmRSS %ld kB (anonymous %ld, file %ld), VmHWM "
            "%ld kB\n",
            before->pid, before->rss_kb, before->anon_kb, before->file_kb, before->hwm_kb);

    long redis_pid = 0;
    if (opts->redis_port) {
        simple_client client(redis, resp_size);
        const auto set = client.call(resp_command({"SET", opts->stored_path, expected}));
        const auto get = client.call(resp_command({"GET", opts->stored_path}));
        const auto info = client.call(resp_command({"INFO", "server"}));
        if (set != "+OK\r\n" || !get || !info) {
            std::fprintf(stderr, "qsfpd_load: Redis at %s does not take SET/GET\n",
                         redis.describe().c_str());
            return 1;
        }
        if (const auto at = info->find("process_id:"); at != std::string::npos)
            redis_pid = parse_number<long>(std::string_view(*info).substr(at + 11)).value_or(0);
        std::printf("Redis pid %ld; key %s holds %s (%zu bytes), as the qsfpd node does\n",
                    redis_pid, opts->stored_path.c_str(), expected.c_str(), expected.size());
    }
    std::printf("\n");
    std::fflush(stdout);

    const json_get stored_get(opts->stored_path, expected);
    const json_get volatile_get(opts->volatile_path, std::nullopt);
    const resp_get redis_get(opts->stored_path, expected);

    std::vector<result_row> rows;
    auto run = [&](const endpoint& ep, const protocol& proto, std::string target,
                   std::string operation, std::size_t conns, std::size_t depth, long pid,
                   bool is_redis, bool stored) {
        // Of the attempts, the least disturbed one counts; results play no part in the choice.
        std::optional<result_row> kept;
        for (int attempt = 1; attempt <= 1 + opts->retries; ++attempt) {
            wait_for_quiet(opts->quiet_wait);
            result_row candidate;
            candidate.target = target;
            candidate.operation = operation;
            candidate.redis = is_redis;
            candidate.stored = stored;
            candidate.attempt = attempt;
            get_load(ep, proto, conns, depth, opts->time, pid).run(candidate);
            if (!kept || candidate.other_cpu < kept->other_cpu) kept = std::move(candidate);
            kept->attempts = attempt;
            if (kept->other_cpu <= disturbed_cpu) break;
            ::usleep(100'000);
        }
        result_row row = std::move(*kept);
        // Let the server finish closing the scenario's connections, then see what memory stayed.
        ::usleep(100'000);
        if (!is_redis) {
            if (const auto report = read_process_report(qsfpd, opts->process_path))
                row.server_rss_kb = report->rss_kb;
        }
        std::fprintf(
            stderr, "  %-14s %-24s conns %4zu depth %3zu: %9.0f ops/s p50 %7s µs p99 %7s µs%s\n",
            row.target.c_str(), row.operation.c_str(), conns, depth, row.ops_per_s,
            micros(row.p50).c_str(), micros(row.p99).c_str(), row.errors ? "  ERRORS" : "");
        rows.push_back(std::move(row));
    };
    // Targets take turns within each shape, so a drift in the machine's load hits all alike.
    for (const auto conns : opts->connections) {
        for (const auto depth : opts->depths) {
            if (opts->redis_port && opts->run_redis)
                run(redis, redis_get, "Redis", "GET", conns, depth, redis_pid, true, true);
            if (opts->run_stored)
                run(qsfpd, stored_get, "qsfpd", "get stored (status)", conns, depth, qsfpd_pid,
                    false, true);
            if (opts->run_volatile)
                run(qsfpd, volatile_get, "qsfpd", "get volatile", conns, depth, qsfpd_pid, false,
                    false);
            if (!opts->qsfpd_unix.empty() && opts->run_unix)
                run(endpoint{0, opts->qsfpd_unix}, stored_get, "qsfpd unix", "get stored (status)",
                    conns, depth, qsfpd_pid, false, true);
        }
    }

    std::vector<notify_rows> notifies;
    const qsfpd_changes qsfpd_notify("bench/counter", "bench/ticker");
    const redis_changes redis_notify("qsfpd-bench:counter");
    auto notify = [&](const endpoint& ep, const change_protocol& proto, std::size_t subs,
                      long pid) {
        std::optional<notify_rows> kept;
        for (int attempt = 1; attempt <= 1 + opts->retries; ++attempt) {
            wait_for_quiet(opts->quiet_wait);
            notify_rows candidate;
            run_notify(ep, proto, subs, opts->time, opts->max_changes, pid, candidate);
            for (auto& row : candidate.streams)
                row.attempt = attempt;
            const auto other = [](const notify_rows& n) { return n.streams.front().other_cpu; };
            if (!kept || other(candidate) < other(*kept)) kept = std::move(candidate);
            for (auto& row : kept->streams)
                row.attempts = attempt;
            if (other(*kept) <= disturbed_cpu) break;
            ::usleep(100'000);
        }
        auto& n = notifies.emplace_back(std::move(*kept));
        ::usleep(100'000);
        if (proto.target() == "qsfpd") {
            if (const auto report = read_process_report(qsfpd, opts->process_path))
                for (auto& row : n.streams)
                    row.server_rss_kb = report->rss_kb;
        }
        const auto& first = n.streams.front();
        std::fprintf(
            stderr, "  %-14s notify %4zu subscribers: %zu changes, p50 %s µs p99 %s µs%s\n",
            first.target.c_str(), subs, static_cast<std::size_t>(n.all_delivered.count()),
            micros(first.p50).c_str(), micros(first.p99).c_str(), first.errors ? "  ERRORS" : "");
        for (const auto& row : n.streams)
            rows.push_back(row);
    };
    for (const auto subs : opts->run_notify ? opts->subscribers : std::vector<std::size_t>{}) {
        if (opts->redis_port && opts->run_redis) notify(redis, redis_notify, subs, redis_pid);
        notify(qsfpd, qsfpd_notify, subs, qsfpd_pid);
    }

    const auto after = read_process_report(qsfpd, opts->process_path);

    print_table(rows);
    std::printf(
        "\nops/s is requests per second for gets, changes per second for notifications (each "
        "change\n"
        "is sent once all notifications of the previous one arrived). Latency runs from just "
        "before\n"
        "the request is written to just after the reply (or notification) is read. CPU is percent "
        "of\n"
        "one core over the measured window; the client is this single-threaded load generator.\n");
    for (const auto& n : notifies) {
        const auto& first = n.streams.front();
        std::printf(
            "%s notify with %s: change round trip p50 %s µs p99 %s µs; last notification of a "
            "change p50 %s µs p99 %s µs; %llu late\n",
            first.target.c_str(), first.clients.c_str(),
            micros(n.change_reply.percentile(0.5)).c_str(),
            micros(n.change_reply.percentile(0.99)).c_str(),
            micros(n.all_delivered.percentile(0.5)).c_str(),
            micros(n.all_delivered.percentile(0.99)).c_str(),
            static_cast<unsigned long long>(n.late));
    }
    if (after)
        std::printf(
            "qsfpd server after the load: VmRSS %ld kB (anonymous %ld, file %ld), peak VmHWM %ld "
            "kB\n",
            after->rss_kb, after->anon_kb, after->file_kb, after->hwm_kb);

    std::uint64_t errors = 0;
    std::size_t disturbed = 0;
    for (const auto& r : rows) {
        errors += r.errors;
        if (r.other_cpu > disturbed_cpu) ++disturbed;
        if (r.attempts > 1)
            std::printf(
                "%s %s (%s conns, %zu in flight): run %d times for other work, run %d kept\n",
                r.target.c_str(), r.operation.c_str(), r.clients.c_str(), r.depth, r.attempts,
                r.attempt);
        if (!r.first_error.empty())
            std::printf("errors in %s %s (%s conns, %zu in flight): %s\n", r.target.c_str(),
                        r.operation.c_str(), r.clients.c_str(), r.depth, r.first_error.c_str());
    }

    if (disturbed > 0)
        std::printf(
            "WARNING: other work used more than %.0f%% of a core during %zu scenarios; those "
            "rows are not representative\n",
            disturbed_cpu, disturbed);

    std::printf("\nGoals:\n");
    auto verdict = [](bool met) { return met ? "met" : "MISSED"; };
    for (const auto& r : rows) {
        if (r.target != "qsfpd" || !r.stored) continue;
        if (const auto* redis = redis_match(rows, r))
            std::printf(
                "  stored get >= Redis GET, %zu conns x %zu in flight: %.0f vs %.0f ops/s (%.2fx): "
                "%s\n",
                r.connections, r.depth, r.ops_per_s, redis->ops_per_s,
                redis->ops_per_s > 0 ? r.ops_per_s / redis->ops_per_s : 0.0,
                verdict(r.errors == 0 && r.ops_per_s >= redis->ops_per_s));
    }
    for (const auto& r : rows) {
        if (r.target != "qsfpd" || !r.stored || r.connections != 50) continue;
        std::printf("  stored get p99 < 1 ms at 50 conns x %zu in flight: p99 %s µs: %s\n", r.depth,
                    micros(r.p99).c_str(),
                    verdict(r.errors == 0 && r.samples > 0 && r.p99 < ns_per_ms));
    }
    if (before && after)
        std::printf(
            "  server RSS < %.0f kB: %ld kB after registering (as probed), %ld kB after the load, "
            "peak %ld kB: %s\n",
            opts->rss_goal_kb, before->rss_kb, after->rss_kb, after->hwm_kb,
            verdict(static_cast<double>(std::max(after->rss_kb, after->hwm_kb)) <
                    opts->rss_goal_kb));
    return errors == 0 ? 0 : 1;
}
