#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>

namespace qsfpctl {

// How `watch` learns that it should end, and where it takes its time stamps from. main() sets
// `stop` from SIGINT/SIGTERM; tests bound the watch by events and drive it from on_subscribed.
struct watch_controls {
    // The watch ends (status 0) soon after *stop becomes true: it is checked every poll_interval.
    const std::atomic<bool>* stop = nullptr;
    std::chrono::milliseconds poll_interval{200};
    // The watch ends (status 0) after this many change notifications.
    std::optional<std::size_t> max_events;
    // The watch fails (status 1) after this long without a notification.
    std::optional<std::chrono::milliseconds> idle_limit;
    // Called once every path is subscribed, before anything is printed.
    std::function<void()> on_subscribed;
    // The time stamp of each line; the system clock when empty.
    std::function<std::chrono::system_clock::time_point()> now;
};

}  // namespace qsfpctl
