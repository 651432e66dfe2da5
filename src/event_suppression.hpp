#pragma once

#include <array>
#include <numeric>
#include <optional>
#include <string>
#include <utility>

// Flap suppression of one alarm condition (LOS, LOL). Transitions are counted in ten buckets of
// ten monitoring cycles each; a condition that changed 11 times or more within the last 100
// cycles is held raised until ten buckets in a row saw no transition. That keeps a flapping fibre
// from flooding the management system with events while still reporting it once.
class event_suppression {
  public:
    static constexpr std::size_t buckets = 10;
    static constexpr unsigned entry_transitions = 11;

    // What a cycle decided: the value to push (none: leave the alarm as it is) and the message
    // to log, without the module name.
    struct outcome {
        std::optional<int> push;
        std::string message;
    };

    explicit event_suppression(std::string event) : event_(std::move(event)) {}

    // Drops the oldest bucket and opens a new empty one.
    void shift() {
        for (std::size_t i = 0; i + 1 < buckets; ++i)
            history_[i] = history_[i + 1];
        history_[buckets - 1] = 0;
    }

    // One cycle with the condition as read now.
    outcome update(bool raw) {
        // Leaving suppression publishes "not detected"; a condition still present then is
        // reported as a fresh detection on the next cycle rather than left cleared.
        const bool changed = raw != state_ || std::exchange(resync_, false);
        if (raw != state_) {
            ++history_[buckets - 1];
            state_ = raw;
        }
        const unsigned sum = std::accumulate(history_.begin(), history_.end(), 0u);
        if (suppressed_) {
            if (sum != 0) return {};
            suppressed_ = false;
            resync_ = state_;
            return {0, event_ + " event suppression mode exited, " + event_ + " not detected "};
        }
        if (sum >= entry_transitions) {
            suppressed_ = true;
            return {1, event_ + " event suppression mode entered, " + event_ + " detected "};
        }
        if (!changed) return {};
        return {state_ ? 1 : 0, event_ + (state_ ? " detected " : " not detected ")};
    }

    bool state() const { return state_; }
    bool suppressed() const { return suppressed_; }
    unsigned transitions() const { return std::accumulate(history_.begin(), history_.end(), 0u); }

  private:
    std::string event_;
    std::array<unsigned, buckets> history_{};
    bool state_ = false;
    bool suppressed_ = false;
    bool resync_ = false;
};
