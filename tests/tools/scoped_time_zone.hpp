#pragma once

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

namespace qsfpctl::test {

// Sets TZ for the duration of a test, so local time stamps have a known form.
class scoped_time_zone {
  public:
    explicit scoped_time_zone(const char* zone) {
        if (const char* old = std::getenv("TZ")) old_ = old;
        ::setenv("TZ", zone, 1);
        ::tzset();
    }
    ~scoped_time_zone() {
        if (old_)
            ::setenv("TZ", old_->c_str(), 1);
        else
            ::unsetenv("TZ");
        ::tzset();
    }
    scoped_time_zone(const scoped_time_zone&) = delete;
    scoped_time_zone& operator=(const scoped_time_zone&) = delete;

  private:
    std::optional<std::string> old_;
};

}  // namespace qsfpctl::test
