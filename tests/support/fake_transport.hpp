#pragma once

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "qsfp_transport.hpp"

namespace qsfpd::test {

// An in-memory module behind the cage seam, behaving like a simple paged module: byte 127 selects
// the page, byte 126 the bank (for pages marked banked), reads at 128..255 come from the selected
// page. Every transfer is traced, and failures can be injected with an errno. Each transfer lets
// other threads run afterwards, to widen any window between a page select and the read that
// depends on it.
class fake_transport final : public cage::qsfp_transport {
  public:
    // Loads an image in flat layout: 0..127 the lower page, then page p's upper half at
    // p * 128 + 128 (the layout of the module dumps).
    void load_flat(std::span<const std::uint8_t> image) {
        for (std::size_t i = 0; i < image.size(); ++i)
            set_byte(static_cast<std::uint8_t>(i < 128 ? 0 : i / 128 - 1),
                     static_cast<std::uint8_t>(i < 128 ? i : 128 + i % 128), image[i]);
    }
    // Set-up and inspection, between transfers: only the transfers lock.
    void set_byte(std::uint8_t page, std::uint8_t byte, std::uint8_t value, std::uint8_t bank = 0) {
        at(bank, page, byte) = value;
    }
    std::uint8_t byte(std::uint8_t page, std::uint8_t byte, std::uint8_t bank = 0) {
        return at(bank, page, byte);
    }
    // Pages 10h and up honour the bank select, like CMIS banked pages.
    void set_banked(bool banked) { banked_ = banked; }

    // Injected failures: the next `count` transfers (every one, with count 0) throw `error`.
    void fail_next(int error, int count = 1) {
        fail_errno_ = error;
        fail_count_ = count;
    }

    // The transfers since the last call, as text: "r130#4" a read of 4 bytes at 130, "w127:03" a
    // write of 03h at 127; "51:" in front for the A2h address.
    std::string trace() { return std::exchange(trace_, {}); }

    // The SFP behind a QSFP-to-SFP converter: when set, 0x50 serves A0h and 0x51 A2h unpaged, as
    // one linear space with A2h byte n at 256 + n.
    void set_sfp(std::span<const std::uint8_t> a0_a2) {
        sfp_.emplace();
        std::copy_n(a0_a2.begin(), std::min<std::size_t>(a0_a2.size(), 512), sfp_->begin());
    }

    // Lines.
    std::map<unsigned, bool> pins;
    bool present = true;
    std::map<cage::sfp_signal, bool> sfp_signals;
    bool sfp_lines_wired = true;

    void i2c_read(std::uint8_t device_address, std::uint8_t offset,
                  std::span<std::uint8_t> out) override {
        transfer(device_address, offset, out.size(), nullptr, out.data());
    }
    void i2c_write(std::uint8_t device_address, std::uint8_t offset,
                   std::span<const std::uint8_t> data) override {
        transfer(device_address, offset, data.size(), data.data(), nullptr);
    }

    bool pin_get(unsigned line) override { return pins[line]; }
    void pin_set(unsigned line, bool value) override { pins[line] = value; }
    bool module_present() override { return present; }

    bool sfp_signal_get(cage::sfp_signal signal) override { return sfp_lines()[signal]; }
    void sfp_signal_set(cage::sfp_signal signal, bool value) override {
        sfp_lines()[signal] = value;
    }

  private:
    // Writes `in` or reads into `out`, byte by byte, so a select written in a transfer applies
    // to the bytes after it.
    void transfer(std::uint8_t device, std::uint8_t offset, std::size_t length,
                  const std::uint8_t* in, std::uint8_t* out) {
        {
            std::lock_guard guard(mutex_);
            if (!trace_.empty()) trace_ += ' ';
            if (device != cage::module_address) trace_ += hex(device) + ":";
            trace_ += (in ? "w" : "r") + std::to_string(offset) +
                      (in ? ":" : "#" + std::to_string(length));
            if (fail_errno_ != 0) {
                const int error = fail_errno_;
                if (fail_count_ > 0 && --fail_count_ == 0) fail_errno_ = 0;
                throw std::system_error(error, std::generic_category(), "fake bus");
            }
            if (offset + length > 256)
                throw std::system_error(EINVAL, std::generic_category(), "past byte 255");
            for (std::size_t i = 0; i < length; ++i) {
                std::uint8_t& c = cell(device, offset + i);
                if (in)
                    trace_ += hex(c = in[i]);
                else
                    out[i] = c;
            }
        }
        std::this_thread::yield();
    }

    std::map<cage::sfp_signal, bool>& sfp_lines() {
        if (!sfp_lines_wired) throw std::system_error(ENOTSUP, std::generic_category(), "no sfp");
        return sfp_signals;
    }

    static std::string hex(std::uint8_t value) {
        char text[3];
        std::snprintf(text, sizeof text, "%02x", unsigned{value});
        return text;
    }

    std::uint8_t& cell(std::uint8_t device, std::size_t offset) {
        if (sfp_ && (device == cage::module_address || device == cage::sfp_diagnostics_address))
            return (*sfp_)[(device - cage::module_address) * 256u + offset];
        if (device != cage::module_address)
            throw std::system_error(ENXIO, std::generic_category(), "no device at this address");
        return at(lower_[126], lower_[127], static_cast<std::uint8_t>(offset));
    }

    std::uint8_t& at(std::uint8_t bank, std::uint8_t page, std::uint8_t byte) {
        if (byte < 128) return lower_[byte];
        return pages_[{banked_ && page >= 0x10 ? bank : 0, page}][byte - 128];
    }

    std::mutex mutex_;
    std::array<std::uint8_t, 128> lower_{};
    std::map<std::pair<std::uint8_t, std::uint8_t>, std::array<std::uint8_t, 128>> pages_;
    bool banked_ = false;
    int fail_errno_ = 0;
    int fail_count_ = 0;
    std::string trace_;
    std::optional<std::array<std::uint8_t, 512>> sfp_;
};

}  // namespace qsfpd::test
