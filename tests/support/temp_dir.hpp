#pragma once

#include <unistd.h>

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

    std::string write(const std::string& file_name, std::string_view content) const {
        const auto file = path_ / file_name;
        std::ofstream out(file, std::ios::binary);
        out << content;
        if (!out) throw std::runtime_error("cannot write " + file.string());
        return file.string();
    }
    const std::filesystem::path& path() const { return path_; }

  private:
    std::filesystem::path path_;
};

}  // namespace qsfpd::test
