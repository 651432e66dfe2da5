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

namespace qsfpctl::test {

// The real qsfpctl binary run as a child with its stdout and stderr captured. Every wait is
// bounded; a child still running at the end is killed.
class child_process {
  public:
    child_process(const std::string& binary, const std::vector<std::string>& args) {
        int out_pipe[2];
        int err_pipe[2];
        if (::pipe2(out_pipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
        if (::pipe2(err_pipe, O_CLOEXEC) != 0) {
            ::close(out_pipe[0]);
            ::close(out_pipe[1]);
            throw std::runtime_error("pipe failed");
        }
        out_fd_ = out_pipe[0];
        err_fd_ = err_pipe[0];
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out_pipe[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, err_pipe[1], STDERR_FILENO);
        std::vector<std::string> words{binary};
        words.insert(words.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (auto& word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        const int failed =
            ::posix_spawn(&pid_, binary.c_str(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(out_pipe[1]);
        ::close(err_pipe[1]);
        if (failed != 0) {
            pid_ = -1;
            ::close(out_fd_);
            ::close(err_fd_);
            throw std::runtime_error("cannot start " + binary);
        }
    }
    ~child_process() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            int ignored = 0;
            ::waitpid(pid_, &ignored, 0);
        }
        ::close(out_fd_);
        ::close(err_fd_);
    }
    child_process(const child_process&) = delete;
    child_process& operator=(const child_process&) = delete;

    // The next line the child wrote to stdout, without "\n"; nothing on time-out or end.
    std::optional<std::string> read_line(
        std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (true) {
            if (auto nl = out_.find('\n'); nl != std::string::npos) {
                std::string line = out_.substr(0, nl);
                out_.erase(0, nl + 1);
                return line;
            }
            if (!read_some(out_fd_, out_, deadline)) return std::nullopt;
        }
    }

    void send_signal(int signal) { ::kill(pid_, signal); }

    // Collects the rest of both outputs and the exit status (128 + N for a death by signal N);
    // nothing if the child does not finish in time.
    std::optional<int> wait_exit(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (read_some(out_fd_, out_, deadline)) {
        }
        while (read_some(err_fd_, err_, deadline)) {
        }
        if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
        int status = 0;
        if (::waitpid(pid_, &status, 0) != pid_) return std::nullopt;
        pid_ = -1;
        if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
        return WEXITSTATUS(status);
    }

    const std::string& rest_of_stdout() const { return out_; }
    const std::string& stderr_text() const { return err_; }

  private:
    // False at the end of the stream or the deadline.
    static bool read_some(int fd, std::string& into,
                          std::chrono::steady_clock::time_point deadline) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) return false;
        char chunk[4096];
        const auto n = ::read(fd, chunk, sizeof chunk);
        if (n <= 0) return false;
        into.append(chunk, static_cast<std::size_t>(n));
        return true;
    }

    pid_t pid_ = -1;
    int out_fd_ = -1;
    int err_fd_ = -1;
    std::string out_;
    std::string err_;
};

}  // namespace qsfpctl::test
