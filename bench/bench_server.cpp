// A device-handler server with a realistic node set for the load generator to measure.
//
//   bench_server [--port N] [--socket PATH] [--nodes N] [--age N]
//
// Prints one "ready" line with the TCP port, the socket, the node count and the resident memory
// after registration, then serves until SIGTERM or SIGINT. The command node "bench/rss" reports
// the memory again (and the pid, so the load generator can read the server's CPU time).

#include <unistd.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>

#include "bench_nodes.hpp"
#include "device_handler_api.hpp"
#include "msg_log.hpp"

namespace {

struct options {
    unsigned port = 0;  // any free port; the ready line names it
    std::string socket;
    std::size_t nodes = 2000;
    int age = 0;
};

void usage(std::ostream& out) {
    out << "usage: bench_server [--port N] [--socket PATH] [--nodes N] [--age N]\n"
           "  --port N       TCP port on all addresses, 0 takes a free one (default 0)\n"
           "  --socket PATH  Unix-domain socket (default /tmp/qsfpd-bench-<pid>.sock)\n"
           "  --nodes N      number of nodes to register; the 22 fixed ones always are (default "
           "2000)\n"
           "  --age N        change each polled status value N times before serving (default 0)\n";
}

std::optional<unsigned long> number(std::string_view text) {
    if (text.empty()) return std::nullopt;
    unsigned long value = 0;
    for (char c : text) {
        if (c < '0' || c > '9' || value > 100'000'000) return std::nullopt;
        value = value * 10 + static_cast<unsigned long>(c - '0');
    }
    return value;
}

std::optional<options> parse(int argc, char* argv[]) {
    options o;
    o.socket = "/tmp/qsfpd-bench-" + std::to_string(::getpid()) + ".sock";
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            usage(std::cout);
            std::exit(0);
        }
        if (i + 1 >= argc) return std::nullopt;
        const std::string_view value = argv[++i];
        if (arg == "--port") {
            auto n = number(value);
            if (!n || *n > 65535) return std::nullopt;
            o.port = static_cast<unsigned>(*n);
        } else if (arg == "--socket") {
            o.socket = value;
        } else if (arg == "--nodes") {
            auto n = number(value);
            if (!n || *n > 1'000'000) return std::nullopt;
            o.nodes = *n;
        } else if (arg == "--age") {
            auto n = number(value);
            if (!n || *n > 1000) return std::nullopt;
            o.age = static_cast<int>(*n);
        } else {
            return std::nullopt;
        }
    }
    return o;
}

}  // namespace

int main(int argc, char* argv[]) {
    const auto opts = parse(argc, argv);
    if (!opts) {
        usage(std::cerr);
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN);
    // As the daemon does, minus syslog: a benchmark has no business in the host's log.
    msg_log::init({.max_severity = msg_log::info, .to_stderr = true, .to_syslog = false});

    device_handler_api server(opts->socket, opts->port, false, device_handler_api::limits{}, true);
    auto nodes = qsfpd::bench::populate(server.get_db(), opts->nodes);
    qsfpd::bench::age(nodes, opts->age);

    std::printf(
        "bench_server ready port=%u socket=%s nodes=%zu aged=%d rss_kb=%ld anon_kb=%ld "
        "file_kb=%ld\n",
        server.tcp_port(), opts->socket.c_str(), server.get_db().size(), opts->age,
        qsfpd::bench::proc_status_kb("VmRSS"), qsfpd::bench::proc_status_kb("RssAnon"),
        qsfpd::bench::proc_status_kb("RssFile"));
    std::fflush(stdout);

    server.start();

    std::printf("bench_server stopped reads=%llu writes=%llu rss_kb=%ld hwm_kb=%ld\n",
                static_cast<unsigned long long>(nodes.owner->reads.load()),
                static_cast<unsigned long long>(nodes.owner->writes.load()),
                qsfpd::bench::proc_status_kb("VmRSS"), qsfpd::bench::proc_status_kb("VmHWM"));
    return 0;
}
