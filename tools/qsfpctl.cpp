// qsfpctl: the command-line client of qsfpd. Everything but the process plumbing lives in
// run_qsfpctl, where the tests reach it.
#include <atomic>
#include <csignal>
#include <iostream>
#include <string>
#include <vector>

#include "run_qsfpctl.hpp"

namespace {

std::atomic<bool> stop_requested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the flag is set from a signal handler");

extern "C" void request_stop(int) {
    stop_requested.store(true);
}

// Only `watch` turns SIGINT/SIGTERM into a clean end (status 0); any other command keeps the
// default action, so Ctrl-C interrupts a slow request at once.
void catch_stop_signals() {
    struct sigaction action {};
    action.sa_handler = request_stop;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

}  // namespace

int main(int argc, char* argv[]) {
    // A reader that goes away (`qsfpctl watch x | head -1`) must not kill us mid-line.
    std::signal(SIGPIPE, SIG_IGN);
    const std::vector<std::string> args(argv + 1, argv + argc);
    qsfpctl::watch_controls controls;
    controls.stop = &stop_requested;
    controls.on_subscribed = catch_stop_signals;
    return qsfpctl::run_qsfpctl(args, std::cout, std::cerr, controls);
}
