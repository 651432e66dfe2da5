#include "prbs_test.hpp"

#include <numeric>
#include <system_error>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "dh_error.hpp"

prbs_test::prbs_test(std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map,
                     std::function<module_lock()> lock_module, std::shared_ptr<qsfpd::clock> clock,
                     unsigned lanes)
    : reg_map_(std::move(reg_map)),
      lock_module_(std::move(lock_module)),
      clock_(std::move(clock)),
      lanes_(lanes) {}

prbs_test::~prbs_test() {
    stop_thread();
}

void prbs_test::stop_thread() {
    // The stop request wakes the thread from its sleep: a removed module frees the cage at once.
    if (thread_.joinable()) {
        thread_.request_stop();
        thread_.join();
    }
}

void prbs_test::publish_alarm(bool raised) {
    if (alarm_) alarm_->update(raised ? 1 : 0);
}

void prbs_test::zero_counters() {
    std::lock_guard guard(counters_mutex_);
    errors_.fill(0);
    bits_.fill(0);
    lock_lost_ = 0;
}

void prbs_test::start(bool start) {
    auto lock = lock_module_();
    if (start == started_) {
        if (start) throw dh_error(dh::errc::invalid, "PRBS has already started.");
        return;
    }
    // A duration applies to the run it was written after: starting or stopping clears it.
    set_time_ = 0;
    if (start) {
        reg_map_->prbs_start_err_count(lanes_, pattern_);
        started_ = true;
        elapsed_time_ = 0;
        zero_counters();
        publish_alarm(true);
        // A thread left from a run that expired has ended or is ending; it does not wait for
        // the lock once started_ went false under it.
        lock.unlock();
        stop_thread();
        lock.lock();
        thread_ = std::jthread([this](std::stop_token stop) { poll(std::move(stop)); });
        return;
    }
    started_ = false;
    thread_.request_stop();
    lock.unlock();
    stop_thread();
    lock.lock();
    publish_alarm(false);
    reg_map_->prbs_stop_err_count();
}

void prbs_test::reset(bool reset) {
    if (!reset) return;
    auto lock = lock_module_();
    elapsed_time_ = 0;
    zero_counters();
    reg_map_->prbs_reset_err_count();
}

void prbs_test::set_pattern(const std::string& pattern) {
    auto lock = lock_module_();
    if (started_)
        throw dh_error(dh::errc::invalid, "PRBS is measuring. Please stop it before changing.");
    const auto& known = qsfpd::cage::qsfp_reg_map::prbs_patterns();
    if (std::find(known.begin(), known.end(), pattern) == known.end())
        throw dh_error(dh::errc::invalid, "Unknown PRBS pattern " + pattern);
    pattern_ = pattern;
}

void prbs_test::poll(std::stop_token stop) {
    if (!clock_->sleep_for(poll_period, stop)) return;
    while (!stop.stop_requested()) {
        if (!clock_->sleep_for(poll_period, stop)) return;
        elapsed_time_ += static_cast<unsigned>(poll_period.count());
        const unsigned limit = set_time_;
        try {
            auto lock = lock_module_();
            if (stop.stop_requested() || !started_) return;
            if (limit != 0 && elapsed_time_ > limit) {
                started_ = false;
                publish_alarm(false);
                reg_map_->prbs_stop_err_count();
                return;
            }
            std::array<std::uint64_t, 8> errors{};
            std::array<std::uint64_t, 8> bits{};
            std::uint8_t lost = 0;
            reg_map_->prbs_get_err_count(lanes_, errors, bits, lost);
            std::lock_guard guard(counters_mutex_);
            errors_ = errors;
            bits_ = bits;
            lock_lost_ |= lost;
        } catch (const std::system_error&) {
            // The module did not answer: try again a little later, the test goes on.
            if (!clock_->sleep_for(retry_period, stop)) return;
            elapsed_time_ += static_cast<unsigned>(retry_period.count());
        } catch (...) {
            return;
        }
    }
}

dh::api::json_object prbs_test::info() {
    std::uint64_t errors = 0;
    std::uint64_t bits = 0;
    bool lost = false;
    {
        std::lock_guard guard(counters_mutex_);
        errors = std::accumulate(errors_.begin(), errors_.end(), std::uint64_t{0});
        bits = std::accumulate(bits_.begin(), bits_.end(), std::uint64_t{0});
        lost = lock_lost_ != 0;
    }
    std::string pattern;
    {
        auto lock = lock_module_();
        pattern = pattern_;
    }
    rapidjson::StringBuffer out;
    rapidjson::Writer<rapidjson::StringBuffer> w(out);
    w.StartObject();
    w.Key("status");
    w.String(started_ ? "running" : "not started");
    w.Key("errorCount");
    w.Uint64(errors);
    w.Key("totalBitsCount");
    w.Uint64(bits);
    w.Key("lolFlag");
    w.Bool(lost);
    w.Key("setTime");
    w.Uint(set_time_);
    w.Key("elapsedTime");
    w.Uint(elapsed_time_);
    w.Key("pattern");
    w.String(pattern.c_str());
    w.EndObject();
    return {out.GetString()};
}
