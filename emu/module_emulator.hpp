#pragma once

#include <array>
#include <bitset>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "cage/cmis_states.hpp"
#include "cage/qsfp_transport.hpp"
#include "clock.hpp"
#include "module_memory.hpp"
#include "module_profile.hpp"
#include "vdm_pages.hpp"

namespace qsfpd::emu {

class coherent_module;

using cmis_state = cage::cmis_module_state;
using dp_state = cage::cmis_dp_state;
using config_status = cage::cmis_config_status;

// Per-lane conditions the emulator can drive (live state and latched flag).
enum class lane_flag { tx_fault, tx_los, tx_lol, rx_los, rx_lol };
inline constexpr std::size_t lane_flag_count = 5;

// How a flap pattern advances: one step per host read that covers the flag's byte, or one step
// per time period.
enum class flap_step { per_poll, per_period };

// Where the emulator shows a lane flag.
struct flag_site {
    std::uint8_t device = 0x50;
    page_id page;  // ignored for lower memory
    std::uint8_t offset = 0;
    std::uint8_t bit = 0;
    bool latched = true;  // latched flag (clear on read) rather than a live status bit
};

// One module: its memory (one per two-wire address) plus behaviour, all on the injected clock.
// Time moves only through the clock; every host access first brings the module up to now().
// All public members may be called from any thread.
class module_emulator {
  public:
    module_emulator(module_profile profile, std::shared_ptr<clock> clk);
    ~module_emulator();
    module_emulator(const module_emulator&) = delete;
    module_emulator& operator=(const module_emulator&) = delete;

    const module_profile& profile() const { return profile_; }
    module_memory& memory(std::uint8_t device_address = cage::module_address);

    // Whether the module acknowledges its address now: not while reset is held, not during the
    // not-ready window after insertion or reset, and only at addresses it has memory for.
    bool answers(std::uint8_t device_address);
    void read(std::uint8_t device_address, std::uint8_t offset, std::span<std::uint8_t> out);
    void write(std::uint8_t device_address, std::uint8_t offset,
               std::span<const std::uint8_t> data);

    // Module lines, as driven by the cage (true = asserted).
    void set_lpmode(bool asserted);
    void set_reset(bool asserted);
    bool reset_held() const;

    // Power state. `cmis_module_state` is empty for non-CMIS modules.
    std::optional<cmis_state> cmis_module_state();
    // Transmitters held off by the power mode (CMIS not ModuleReady; SFF-8636 low power or a
    // power class above 4 that the host has not enabled).
    bool in_low_power();
    bool transmitter_on(unsigned lane);
    // The IntL line: asserted while any latched flag is set (flag masks are not modelled).
    bool interrupt_asserted();
    // Drives a CMIS module into ModuleFault until reset.
    void force_fault();

    // Fault injection.
    // A pattern of '0'/'1' applied to the live state of `flag` on `lane`, one step per poll or
    // per period; every '1' step also latches the flag. `repeat` cycles the pattern, otherwise
    // the last step holds.
    void flap(lane_flag flag, unsigned lane, std::string pattern, flap_step step,
              clock::duration period = {}, bool repeat = true);
    void stop_flaps();
    // When the data path of a CMIS host lane (0-based) became DPActivated, if it is.
    std::optional<clock::time_point> data_path_up_since(unsigned host_lane) const;
    // A CMIS module that ignores every low power request (LPMode and LowPwrRequestSW).
    void ignore_low_power_requests(bool on);
    // CMIS data paths that stay in DPInit while set.
    void hold_data_path_init(bool on);
    // The coherent DSP and laser (emu/coherent_module.hpp) of a profile with the coherent pages,
    // else null.
    coherent_module* coherent() { return coherent_.get(); }
    bool flag_live(lane_flag flag, unsigned lane);
    std::optional<flag_site> site(lane_flag flag, unsigned lane) const;
    // Freezes bytes (e.g. a monitor register) at a value: the monitor refresh no longer moves them.
    void stick(page_id page, std::uint8_t offset, std::vector<std::uint8_t> bytes,
               std::uint8_t device_address = cage::module_address);
    void unstick_all();

    // Raw access (no masks, no clear-on-read), safe against a daemon thread polling the cage.
    // `memory()` gives the whole memory for set-up while nobody else accesses the module.
    std::uint8_t peek(page_id page, std::uint8_t offset,
                      std::uint8_t device_address = cage::module_address);
    void poke(page_id page, std::uint8_t offset, std::uint8_t value,
              std::uint8_t device_address = cage::module_address);

    // The SFP signals of a converter (ENOTSUP for other modules).
    bool sfp_signal(cage::sfp_signal signal);
    void set_sfp_signal(cage::sfp_signal signal, bool value);

    // Behaviour hooks on a byte range of a (bank, page) (lower memory for offsets below 128).
    // Unlike hooks set on memory() directly they survive reset and software reset, which
    // rebuild the memory from the profile; later behaviour (tuning, data path init, PRBS, VDM)
    // goes here. Hooks run with the module locked and may peek/poke memory(device).
    void on_write(page_id page, std::uint8_t first, std::uint8_t last,
                  module_memory::write_hook hook,
                  std::uint8_t device_address = cage::module_address);
    void on_read(page_id page, std::uint8_t first, std::uint8_t last, module_memory::read_hook hook,
                 std::uint8_t device_address = cage::module_address);

    // Brings state machine, flaps and monitors up to the clock's now().
    void service();

    // The VDM pages and page C8h of a CMIS 5 profile that has them (fault injection), else null.
    vdm_pages* vdm() { return vdm_.get(); }

    // The engineering value a monitor shows at `tick` (monitor periods since the last restart);
    // exposed so tests can compare against the registers.
    enum class sensor : unsigned { temperature, vcc, bias, tx_power, rx_power };
    double monitor_value(sensor s, unsigned lane, std::uint64_t tick) const;
    std::uint64_t monitor_tick() const;

  private:
    struct flap_entry {
        lane_flag flag;
        unsigned lane;
        std::string pattern;
        flap_step step;
        clock::duration period;
        bool repeat;
        clock::time_point start;
        std::size_t applied = 0;  // steps applied so far
    };
    struct stuck_entry {
        std::uint8_t device;
        page_id page;
        std::uint8_t offset;
        std::vector<std::uint8_t> bytes;
    };

    void restart(clock::time_point now);
    void install_dsp_behaviour();
    void build_memories();
    void advance_cmis(clock::time_point now);
    // CMIS data paths (host lanes of bank 0) and staged control set 0.
    struct dp_lane {
        dp_state state = dp_state::deactivated;
        clock::time_point until{};  // end of DPInit or DPDeinit
        bool checking = false;      // an ApplyDPInit in ConfigInProgress
        clock::time_point checked_at{};
        bool pending = false;  // accepted, waiting for the data path to deinit
        config_status verdict = config_status::undefined;
        config_status status = config_status::undefined;
        std::uint8_t config = 0;           // DPConfig staged at the apply
        std::array<std::uint8_t, 3> si{};  // RX output EQ nibbles staged at the apply
    };
    bool has_data_paths() const;
    clock::duration dp_duration(bool init) const;
    bool dp_held(unsigned lane) const;
    bool dp_should_run(unsigned lane) const;
    void apply_dp_init(std::uint8_t mask, clock::time_point now);
    void apply_immediate(std::uint8_t mask);
    void commit(unsigned lane);
    void advance_lanes(clock::time_point now);
    clock::time_point deinit_lanes(clock::time_point at);
    void show_lanes();
    void enter(cmis_state s, clock::time_point at);
    bool low_power_requested();
    void advance_sff8636(clock::time_point now);
    void advance_sfp(clock::time_point now);
    // SFP tuning (SFF-8690) and attenuator behaviour, emu/sfp_behaviour.cpp.
    bool sfp_tunable() const;
    void configure_sfp_memory();
    void install_sfp_behaviour();
    void advance_sfp_behaviour(clock::time_point now);
    void apply_flap_step(flap_entry& f);
    void set_flag(lane_flag flag, unsigned lane, bool on);
    void refresh_monitors(clock::time_point now);
    void refresh_lane_status();
    void evaluate_alarms();
    bool has_lane_monitors() const;
    void update_interrupt();
    void apply_stuck();
    unsigned cmis_bias_multiplier();
    bool low_power_now();
    bool tx_on_now(unsigned lane);

    // Every public entry locks: the daemon polls from its own threads while a test injects
    // faults. Recursive because public entries call service().
    mutable std::recursive_mutex mutex_;
    module_profile profile_;
    std::shared_ptr<clock> clock_;
    std::map<std::uint8_t, module_memory> memories_;
    clock::time_point epoch_{};  // last insertion or reset release
    bool reset_held_ = false;
    bool lpmode_ = false;
    bool pending_reset_ = false;

    // CMIS module state machine.
    bool cmis_initialised_ = false;  // left MgmtInit
    cmis_state state_ = cmis_state::low_pwr;
    clock::time_point state_since_{};
    bool last_request_ = false;
    clock::time_point request_since_{};

    bool cmis_flat_ = false;  // CMIS flat memory (lower byte 2 bit 7): passive, no state machine
    std::array<dp_lane, 8> dp_{};

    bool data_ready_ = false;  // SFF-8636 Data_Not_Ready cleared / SFF-8472 Data_Ready_Bar

    std::array<std::bitset<16>, lane_flag_count> live_{};
    std::vector<flap_entry> flaps_;
    std::vector<stuck_entry> stuck_;
    struct hook_entry {
        std::uint8_t device;
        page_id page;
        std::uint8_t first;
        std::uint8_t last;
        module_memory::write_hook on_write;
        module_memory::read_hook on_read;
    };
    std::vector<hook_entry> hooks_;
    void install(const hook_entry& h);
    bool ignore_low_power_ = false;
    bool hold_dp_init_ = false;
    std::unique_ptr<coherent_module> coherent_;
    bool sfp_tx_disable_ = false;
    bool sfp_rate_select_ = false;
    std::unique_ptr<vdm_pages> vdm_;
    bool sfp_tuning_ = false;
    clock::time_point sfp_tune_until_{};
    bool sfp_voa_moving_ = false;
    clock::time_point sfp_voa_until_{};
};

}  // namespace qsfpd::emu
