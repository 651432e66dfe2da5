#pragma once

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "transceiver_catalogue.hpp"

namespace qsfpd::test {

// One call of a factory out of the probe map: which list it belonged to and what it was given.
struct factory_call {
    catalogue_list list;
    std::string vendor;
    std::string part_number;
    std::string description;
    qsfp_flags_s flags;
};

// Hands out factories that only record their calls, so a test sees which list's handler the
// manager would have created.
class factory_recorder {
  public:
    std::function<probe_factory(catalogue_list)> factory_for() {
        return [this](catalogue_list list) -> probe_factory {
            return [this, list](const std::string& vendor, const std::string& part_number,
                                const std::string& description, const qsfp_flags_s& flags) {
                calls.push_back({list, vendor, part_number, description, flags});
            };
        };
    }

    // Looks the module up and calls the entry's factory as the manager does; returns that call.
    factory_call create(const probe_map& map, const std::string& vendor,
                        const std::string& part_number) {
        const auto it = find_in_map(map, vendor, part_number);
        const std::size_t before = calls.size();
        it->second(vendor, part_number, it->first.description, it->first.flags);
        if (calls.size() != before + 1) throw std::logic_error("factory was not called once");
        return calls.back();
    }

    std::vector<factory_call> calls;
};

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
