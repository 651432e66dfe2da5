#include "clock_text.hpp"

#include <cstdio>
#include <ctime>

namespace qsfpctl {
namespace {

struct split_time {
    std::time_t seconds;
    int milliseconds;
};

split_time split(std::chrono::system_clock::time_point time) {
    const auto since_epoch = std::chrono::floor<std::chrono::milliseconds>(time.time_since_epoch());
    const auto seconds = std::chrono::floor<std::chrono::seconds>(since_epoch);
    return {static_cast<std::time_t>(seconds.count()),
            static_cast<int>((since_epoch - seconds).count())};
}

}  // namespace

std::string local_clock_time(std::chrono::system_clock::time_point time) {
    const auto [seconds, ms] = split(time);
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[32];
    std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03d", local.tm_hour, local.tm_min,
                  local.tm_sec, ms);
    return text;
}

std::string utc_iso_time(std::chrono::system_clock::time_point time) {
    const auto [seconds, ms] = split(time);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900,
                  utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, ms);
    return text;
}

}  // namespace qsfpctl
