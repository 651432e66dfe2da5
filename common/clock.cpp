#include "clock.hpp"

#include <condition_variable>
#include <mutex>

namespace qsfpd {
namespace {

class system_clock_impl final : public clock {
  public:
    time_point now() const override { return std::chrono::steady_clock::now(); }
    std::chrono::system_clock::time_point wall_now() const override {
        return std::chrono::system_clock::now();
    }
    bool sleep_until(time_point deadline, std::stop_token stop) override {
        std::mutex m;
        std::condition_variable_any cv;
        std::unique_lock lock(m);
        cv.wait_until(lock, stop, deadline, [] { return false; });
        return !stop.stop_requested();
    }
};

}  // namespace

std::shared_ptr<clock> clock::system() {
    static const std::shared_ptr<clock> instance = std::make_shared<system_clock_impl>();
    return instance;
}

}  // namespace qsfpd
