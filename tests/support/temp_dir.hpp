#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace qsfpd::test {

// A directory of its own under the system temp dir, removed with everything in it at the end.
class temp_dir {
  public:
    explicit temp_dir(std::string_view name)
        : path_(std::filesystem::temp_directory_path() /
                ("qsfpd-" + std::string(name) + "-" + std::to_string(::getpid()))) {
        std::filesystem::remove_all(path_);
        std::filesystem::create_directories(path_);
    }
    ~temp_dir() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    temp_dir(const temp_dir&) = delete;
    temp_dir& operator=(const temp_dir&) = delete;

    // Writes `content` to `file_name` (a path below the directory); returns the file's path.
    std::string write(const std::string& file_name, std::string_view content) const {
        const auto file = path_ / file_name;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream out(file, std::ios::binary);
        out << content;
        if (!out) throw std::runtime_error("cannot write " + file.string());
        return file.string();
    }
    const std::filesystem::path& path() const { return path_; }

  private:
    std::filesystem::path path_;
};

// A temp_dir serving as $QSFPD_ROOT while it lives: no platform marker or file of the machine
// running the tests is seen, only those the test makes.
class qsfpd_root : public temp_dir {
  public:
    explicit qsfpd_root(std::string_view name) : temp_dir(name) {
        ::setenv("QSFPD_ROOT", path().c_str(), 1);
    }
    ~qsfpd_root() { ::unsetenv("QSFPD_ROOT"); }

    // The device-tree marker of a board (zelt20, zelt30, ...).
    void make_marker(const std::string& board) const { write("proc/device-tree/" + board, "\n"); }
};

}  // namespace qsfpd::test
