#pragma once

#include <chrono>
#include <string>

namespace qsfpctl {

// "HH:MM:SS.mmm" in local time: what a person watching a terminal wants to see.
std::string local_clock_time(std::chrono::system_clock::time_point time);
// "YYYY-MM-DDTHH:MM:SS.mmmZ": unambiguous across time zones, for --json.
std::string utc_iso_time(std::chrono::system_clock::time_point time);

}  // namespace qsfpctl
