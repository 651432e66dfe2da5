#pragma once

#include <boost/log/sinks/sync_frontend.hpp>
#include <mutex>
#include <string>
#include <vector>

namespace msg_log {

struct captured_record {
    int severity;
    std::string tag;
    std::string text;  // with the code trace at its end
};

// Collects every record while it lives; tests use it to check what the daemon logged.
class log_capture {
  public:
    log_capture();
    ~log_capture();
    log_capture(const log_capture&) = delete;
    log_capture& operator=(const log_capture&) = delete;

    std::vector<captured_record> records() const;
    // Records whose text starts with `prefix` (the code trace is ignored).
    std::vector<captured_record> find(std::string_view prefix) const;
    std::size_t count(std::string_view prefix) const { return find(prefix).size(); }
    void clear();

  private:
    struct state {
        mutable std::mutex mutex;
        std::vector<captured_record> records;
    };
    class backend;
    std::shared_ptr<state> state_;
    boost::shared_ptr<boost::log::sinks::sink> sink_;
};

}  // namespace msg_log
