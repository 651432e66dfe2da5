#pragma once

#include <array>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "cage/qsfp_transport.hpp"
#include "clock.hpp"
#include "emu_bus.hpp"
#include "module_emulator.hpp"
#include "module_profile.hpp"

namespace qsfpd::emu {

// A software QSFP cage: the daemon's transport seam backed by an emulated module. Lines are
// active-high here: pin_set(line::reset, true) holds the module in reset, pin_set(line::lpmode,
// true) asserts LPMode. Every transfer is accounted on the shared bus, answered or not.
class cage_emulator final : public cage::qsfp_transport {
  public:
    cage_emulator(std::shared_ptr<clock> clk, std::shared_ptr<emu_bus> bus, std::string name);

    // Presence: inserting starts the module's not-ready window at the clock's now().
    void insert(module_profile profile);
    void remove();
    // The module in the cage, or nullptr; valid until the next insert/remove.
    module_emulator* module() { return module_.get(); }

    // Bus-level fault injection: the next `count` transfers fail with `error` (ENXIO = not
    // acknowledged), or transfers touching [first, last] at `device_address` fail (`count` 0 =
    // until cleared).
    void fail_next(unsigned count, int error = ENXIO);
    void fail_at(std::uint8_t device_address, std::uint8_t first, std::uint8_t last,
                 int error = ENXIO, unsigned count = 0);
    void clear_faults();

    unsigned bus_index() const { return bus_index_; }
    const std::string& name() const { return name_; }

    void i2c_read(std::uint8_t device_address, std::uint8_t offset,
                  std::span<std::uint8_t> out) override;
    void i2c_write(std::uint8_t device_address, std::uint8_t offset,
                   std::span<const std::uint8_t> data) override;
    bool pin_get(unsigned line) override;
    void pin_set(unsigned line, bool value) override;
    bool module_present() override;
    bool sfp_signal_get(cage::sfp_signal signal) override;
    void sfp_signal_set(cage::sfp_signal signal, bool value) override;

  private:
    struct fault {
        int error;
        unsigned remaining;  // 0 with `persistent`: until cleared
        bool persistent;
        std::optional<std::uint8_t> device;
        std::uint8_t first = 0;
        std::uint8_t last = 255;
    };
    // The errno this transfer fails with, or 0.
    int check(std::uint8_t device_address, std::uint8_t offset, std::size_t length);

    std::shared_ptr<clock> clock_;
    std::shared_ptr<emu_bus> bus_;
    std::string name_;
    unsigned bus_index_;
    std::mutex mutex_;
    std::unique_ptr<module_emulator> module_;
    std::array<bool, 8> lines_{};
    std::vector<fault> faults_;
};

}  // namespace qsfpd::emu
