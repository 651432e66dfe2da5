#pragma once

#include <functional>
#include <stdexcept>
#include <string>
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

}  // namespace qsfpd::test
