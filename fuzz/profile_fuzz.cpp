// The emulator's profile loader: any text either loads or is refused with a profile_error that
// names the field. A profile that loads must give a module that comes up and answers its own
// memory, as qsfp-emu would insert it.
#include <array>
#include <cstdint>
#include <memory>
#include <string_view>
#include <system_error>

#include "fuzz_support.hpp"
#include "module_emulator.hpp"
#include "module_profile.hpp"
#include "qsfp_transport.hpp"
#include "virtual_clock.hpp"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    qsfpd::fuzz::discard_logs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace qsfpd;
    emu::module_profile profile;
    try {
        profile = emu::module_profile::parse(
            std::string_view(reinterpret_cast<const char*>(data), size), "fuzz.json");
    } catch (const emu::profile_error&) {
        return 0;
    }

    auto clock = std::make_shared<virtual_clock>();
    const auto settle = profile.i2c_not_ready + profile.power_up;
    const auto lanes = profile.lanes;
    const bool converter = profile.family == emu::module_family::sff8472_converter;
    emu::module_emulator module(std::move(profile), clock);
    clock->advance(settle + std::chrono::milliseconds(1));
    if (!module.answers(cage::module_address)) qsfpd::fuzz::fail("a loaded profile never answers");
    std::array<std::uint8_t, 128> bytes{};
    module.read(cage::module_address, 0, bytes);
    module.read(cage::module_address, 128, bytes);
    if (converter && module.answers(cage::sfp_diagnostics_address))
        module.read(cage::sfp_diagnostics_address, 0, bytes);
    // A few monitor periods: the noise model runs on the profile's numbers.
    for (int i = 0; i < 3; ++i) {
        clock->advance(module.profile().monitor_period);
        module.read(cage::module_address, 0, bytes);
    }
    if (lanes == 0) qsfpd::fuzz::fail("a profile without lanes");
    return 0;
}
