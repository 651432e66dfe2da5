#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "module_memory.hpp"

namespace qsfpd::emu {

enum class module_family { sff8636, cmis, sff8472_converter };

// A profile that does not load: the message names the file and the field.
class profile_error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct writable_range {
    page_id page;
    std::uint8_t first = 0;
    std::uint8_t last = 0;
    std::uint8_t mask = 0xff;
};

// The image of the memory behind one two-wire address.
struct memory_image {
    module_memory::page_image lower{};
    std::map<page_id, module_memory::page_image> pages;
    std::vector<writable_range> writable;
};

// A monitored value: nominal value in engineering units (degC, V, mA, mW) and the amplitude of
// the uniform noise around it.
struct monitor_model {
    double nominal = 0.0;
    double noise = 0.0;
};

// A coherent (400ZR / ZR+ class) module's DSP and line: timing, error rates and the nominal
// values of its line monitors (noise as for monitor_model). Units are the registers' engineering
// units: dB, ps/nm, ps, MHz, krad/s, dBm.
struct coherent_model {
    std::chrono::milliseconds tuning{1200};     // laser tuning, from the write to completion
    std::chrono::milliseconds lock_delay{300};  // demodulator lock after ready + data path up
    double pre_fec_ber = 2.0e-4;                // corrected bits / received bits
    double uncorrectable_per_s = 0.0;           // uncorrectable FEC frames per second
    double prbs_ber = 1.0e-12;                  // PRBS checker errors / checked bits
    double host_ber = 1.0e-9;                   // client PM corrected bits / bits
    double cd_high_range = 2400.0;              // |CD| the high granularity register covers
    double cd_search_low = -2400.0;
    double cd_search_high = 2400.0;
    double laser_age = 3.0;  // % of end of life
    monitor_model q_db{9.5, 0.1};
    monitor_model q_margin_db{3.2, 0.1};
    monitor_model osnr_db{34.0, 0.3};
    monitor_model esnr_db{18.5, 0.2};
    monitor_model cd{1600.0, 5.0};
    monitor_model dgd_ps{4.0, 0.5};
    monitor_model pdl_db{0.8, 0.1};
    monitor_model cfo_mhz{-120.0, 20.0};
    monitor_model sop_roc_krad_s{5.0, 1.0};
    monitor_model errored_frames{0.0, 0.0};  // ratio, shown as F16
    double signal_below_total_db = 0.3;      // RX signal power = total power minus this
};

// One kind of module, loaded from a JSON file in emu/profiles/ (format: emu/profiles/README.md).
struct module_profile {
    std::string name;
    std::string description;
    std::string file;
    module_family family = module_family::sff8636;
    unsigned lanes = 4;
    std::map<std::uint8_t, memory_image> memories;  // by device address: 0x50, and 0x51 for A2h
    unsupported_page page_policy = unsupported_page::reject;

    // Behaviour timing.
    std::chrono::milliseconds i2c_not_ready{2000};  // after insertion or reset: bus NACKs
    std::chrono::milliseconds power_up{1000};       // CMIS ModulePwrUp; SFF-8636 Data_Not_Ready
    std::chrono::milliseconds power_down{100};      // CMIS ModulePwrDn
    std::chrono::milliseconds monitor_period{100};  // monitors refresh (new noise sample)
    std::chrono::milliseconds config_check{10};     // CMIS ConfigInProgress after an apply
    // Quirk seen on real CMIS modules: ApplyDPInit answers ConfigSuccess but the active control
    // set keeps its old content.
    bool config_success_keeps_old_active_set = false;
    // SFP: how long a tunable SFP+ takes to move to a new channel, and an attenuator to settle.
    std::chrono::milliseconds sfp_tuning{1500};
    std::chrono::milliseconds sfp_voa_settle{0};  // 0: no attenuator

    monitor_model temperature_c{35.0, 0.5};
    monitor_model vcc_v{3.3, 0.01};
    monitor_model bias_ma{40.0, 0.5};
    monitor_model tx_power_mw{1.0, 0.02};
    monitor_model rx_power_mw{0.8, 0.02};
    std::uint64_t noise_seed = 1;
    std::optional<coherent_model> coherent;  // "coherent" object of the profile

    const memory_image& image(std::uint8_t device_address = 0x50) const;

    static module_profile parse(std::string_view json, std::string_view origin);
    static module_profile load(const std::filesystem::path& file);
    // A profile of emu/profiles/ by its file stem, e.g. "qsfp28_100g_lr4".
    static module_profile load_named(std::string_view stem);
    // emu/profiles of the source tree, or $QSFP_EMU_PROFILE_DIR when set.
    static std::filesystem::path directory();
    static std::vector<std::filesystem::path> all_files();
};

std::string_view to_string(module_family family);

// Checksum byte = low byte of the sum of [first, last] in the image of `page` (lower memory
// for offsets below 128). Exposed for tests and tools.
std::uint8_t checksum(const memory_image& image, page_id page, std::uint8_t first,
                      std::uint8_t last);

}  // namespace qsfpd::emu
