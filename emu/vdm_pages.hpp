#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "module_memory.hpp"

namespace qsfpd::emu {

class module_emulator;

// The CMIS 5 coherent fault flags of page C8h byte 128 (docs/coherent-registers.md), one byte
// per bank of 8 host lanes.
enum class coherent_fault : unsigned { tx_remote = 0, tx_local = 1, rx_remote = 2, rx_local = 3 };

// The VDM behaviour of a CMIS 5 module (pages 20h-2Fh) and its page C8h. The profile holds what
// a module keeps in its memory: the descriptors (20h-23h), the thresholds (28h-2Bh), the groups
// supported (2Fh:128). This class computes what moves: the samples (24h-27h) from the module's
// state and a deterministic noise on the monitor period, idle values outside ModuleReady and held
// while the freeze request (2Fh:144 bit 7) is set; the latched flags (2Ch, a nibble per slot,
// even slot in the low nibble: bit 0 high alarm, 1 low alarm, 2 high warning, 3 low warning,
// cleared by the read that returns them), set when a sample read crosses its thresholds; and
// page C8h: the fault flags of the selected bank, set and cleared by fault injection, and the
// post-FEC BER (F16).
class vdm_pages {
  public:
    // Hooks itself into `module` when its profile has VDM (page 01h byte 142 bit 6 and the VDM
    // pages) or page C8h; null otherwise. The hooks survive resets.
    static std::unique_ptr<vdm_pages> install(module_emulator& module);

    // Fault injection, any thread.
    void set_fault(unsigned bank, coherent_fault fault, bool on);
    void clear_faults();
    std::uint8_t faults(unsigned bank) const;

    // The engineering value (register units times the CMIS LSB) an observable type shows at
    // monitor tick `tick`; idle values when `active` is false; nullopt for a type the emulator
    // does not model. Exposed for tests.
    static std::optional<double> value(std::uint8_t type, std::uint64_t tick, bool active,
                                       std::uint64_t seed);
    // The register encoding of `value` for `type`.
    static std::uint16_t encode(std::uint8_t type, double value);
    static double post_fec_ber(std::uint64_t tick, bool active, std::uint64_t seed);

    explicit vdm_pages(module_emulator& module);

  private:
    void update_samples();
    void read_flag(page_id page, std::uint8_t offset);
    void read_c8(page_id page, std::uint8_t offset);
    void freeze_written(std::uint8_t value);
    bool ready();

    module_emulator& module_;
    mutable std::mutex mutex_;
    std::array<std::uint8_t, 4> faults_{};
    // Flags latched since the host last read them, page 2Ch bytes 128..255.
    std::array<std::uint8_t, 128> latched_{};
    std::optional<std::uint64_t> last_tick_;
    bool last_ready_ = false;
};

}  // namespace qsfpd::emu
