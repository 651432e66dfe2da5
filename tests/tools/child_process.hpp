#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

extern char** environ;

namespace qsfpd::test {

// A program run as a child (words[0] is its path) with its stdout and stderr captured together
// through one pipe. Every wait is bounded; a child still running at the end is killed.
class child_process {
  public:
    explicit child_process(std::vector<std::string> words) {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
        fd_ = ends[0];
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
        std::vector<char*> argv;
        for (auto& word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        const int failed = ::posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(ends[1]);
        if (failed != 0) {
            ::close(fd_);
            throw std::runtime_error("cannot start " + words[0]);
        }
    }
    ~child_process() {
        if (pid_ > 0 && ::kill(pid_, SIGKILL) == 0) ::waitpid(pid_, nullptr, 0);
        ::close(fd_);
    }
    child_process(const child_process&) = delete;
    child_process& operator=(const child_process&) = delete;

    // The next line of output, without "\n"; nothing after 10 s or at the end.
    std::optional<std::string> read_line() {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        std::size_t nl;
        while ((nl = output_.find('\n')) == std::string::npos)
            if (!read_some(deadline)) return std::nullopt;
        std::string line = output_.substr(0, nl);
        output_.erase(0, nl + 1);
        return line;
    }

    void send_signal(int signal) { ::kill(pid_, signal); }

    // Collects the rest of the output and the exit status (128 + N for a death by signal N);
    // nothing if the child does not finish within 10 s.
    std::optional<int> wait_exit() {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (read_some(deadline)) {
        }
        int status = 0;
        if (!ended_ || ::waitpid(pid_, &status, 0) != pid_) return std::nullopt;
        pid_ = -1;
        return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    }

    // What the child wrote and no read_line took.
    const std::string& output() const { return output_; }

  private:
    // False at the end of the output or the deadline.
    bool read_some(std::chrono::steady_clock::time_point deadline) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd polled{fd_, POLLIN, 0};
        if (ended_ || left.count() <= 0 || ::poll(&polled, 1, static_cast<int>(left.count())) <= 0)
            return false;
        char chunk[4096];
        const auto n = ::read(fd_, chunk, sizeof chunk);
        if (n > 0) output_.append(chunk, static_cast<std::size_t>(n));
        ended_ = n <= 0;
        return !ended_;
    }

    pid_t pid_ = -1;
    int fd_ = -1;
    bool ended_ = false;
    std::string output_;
};

}  // namespace qsfpd::test
