#pragma once

#include <boost/log/core.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/unlocked_frontend.hpp>
#include <boost/make_shared.hpp>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace qsfpd::fuzz {

// Records are still formatted (their code runs as in the daemon) but go nowhere: a fuzzer that
// printed every "module not identified" line would spend its time writing to the terminal.
class discard_backend
    : public boost::log::sinks::basic_sink_backend<boost::log::sinks::concurrent_feeding> {
  public:
    void consume(const boost::log::record_view&) {}
};

inline void discard_logs() {
    boost::log::core::get()->add_sink(
        boost::make_shared<boost::log::sinks::unlocked_sink<discard_backend>>());
}

// Fixed system paths (/proc/device-tree markers, /etc) resolve under a root that does not exist,
// so nothing of the machine running the fuzzer changes what the code under test does.
inline void isolate_system_paths() {
    ::setenv("QSFPD_ROOT", "/nonexistent/qsfpd-fuzz-root", 1);
}

// libFuzzer reports an abort as a crash with the input that caused it.
[[noreturn]] inline void fail(const char* what) {
    std::fprintf(stderr, "fuzz check failed: %s\n", what);
    std::abort();
}

}  // namespace qsfpd::fuzz
