#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "qsfp_transport.hpp"

namespace qsfpd::test {

// An in-memory module behind the cage seam, behaving like a simple paged module: byte 127 selects
// the page, byte 126 the bank (for pages marked banked), reads at 128..255 come from the selected
// page. Every transfer is counted and logged, and failures can be injected with an errno.
class fake_transport final : public cage::qsfp_transport {
  public:
    struct transfer {
        bool write;
        std::uint8_t device_address;
        std::uint8_t offset;
        std::size_t length;
        std::vector<std::uint8_t> data;  // what was written
    };

    // Loads an image in flat layout: 0..127 the lower page, then page p's upper half at
    // p * 128 + 128 (the layout of the module dumps).
    void load_flat(std::span<const std::uint8_t> image, std::uint8_t bank = 0) {
        std::lock_guard guard(mutex_);
        for (std::size_t i = 0; i < image.size(); ++i) {
            if (i < 128)
                lower_[i] = image[i];
            else
                upper(bank, static_cast<std::uint8_t>(i / 128 - 1))[i % 128] = image[i];
        }
    }
    void set_byte(std::uint8_t page, std::uint8_t byte, std::uint8_t value, std::uint8_t bank = 0) {
        std::lock_guard guard(mutex_);
        if (byte < 128)
            lower_[byte] = value;
        else
            upper(bank, page)[byte - 128] = value;
    }
    std::uint8_t byte(std::uint8_t page, std::uint8_t byte, std::uint8_t bank = 0) {
        std::lock_guard guard(mutex_);
        return byte < 128 ? lower_[byte] : upper(bank, page)[byte - 128];
    }
    // Lets other threads run after each transfer, to widen any window between a page select and
    // the read that depends on it.
    void set_yield(bool yield) { yield_ = yield; }

    // Pages 10h and up honour the bank select, like CMIS banked pages.
    void set_banked(bool banked) { banked_ = banked; }

    // Injected failures: the next `count` transfers (every one, with count 0) throw `error`.
    void fail_next(int error, int count = 1) {
        std::lock_guard guard(mutex_);
        fail_errno_ = error;
        fail_count_ = count;
    }
    void stop_failing() { fail_next(0, 0); }

    std::vector<transfer> log() {
        std::lock_guard guard(mutex_);
        return log_;
    }
    void clear_log() {
        std::lock_guard guard(mutex_);
        log_.clear();
    }
    std::size_t count() {
        std::lock_guard guard(mutex_);
        return log_.size();
    }
    // Writes that touched the page (127) or bank (126) select bytes.
    std::size_t select_writes() {
        std::lock_guard guard(mutex_);
        std::size_t n = 0;
        for (const auto& t : log_)
            if (t.write && t.device_address == cage::module_address && t.offset <= 127 &&
                t.offset + t.length > 126)
                ++n;
        return n;
    }
    std::uint8_t selected_page() { return page_; }
    std::uint8_t selected_bank() { return bank_; }

    // The SFP behind a QSFP-to-SFP converter: when set, 0x50 serves A0h and 0x51 A2h unpaged.
    void set_sfp(std::span<const std::uint8_t> a0, std::span<const std::uint8_t> a2 = {}) {
        std::lock_guard guard(mutex_);
        sfp_a0_.emplace();
        sfp_a2_.emplace();
        sfp_a0_->fill(0);
        sfp_a2_->fill(0);
        std::copy_n(a0.begin(), std::min<std::size_t>(a0.size(), 256), sfp_a0_->begin());
        std::copy_n(a2.begin(), std::min<std::size_t>(a2.size(), 256), sfp_a2_->begin());
    }
    std::uint8_t sfp_byte(std::uint16_t linear) {
        std::lock_guard guard(mutex_);
        return linear < 256 ? (*sfp_a0_)[linear] : (*sfp_a2_)[linear - 256];
    }

    // Lines.
    std::map<unsigned, bool> pins;
    bool present = true;
    std::map<cage::sfp_signal, bool> sfp_signals;
    bool sfp_lines_wired = true;

    void i2c_read(std::uint8_t device_address, std::uint8_t offset,
                  std::span<std::uint8_t> out) override {
        {
            std::lock_guard guard(mutex_);
            log_.push_back({false, device_address, offset, out.size(), {}});
            check(offset, out.size());
            for (std::size_t i = 0; i < out.size(); ++i)
                out[i] = cell(device_address, offset + i);
        }
        if (yield_) std::this_thread::yield();
    }

    void i2c_write(std::uint8_t device_address, std::uint8_t offset,
                   std::span<const std::uint8_t> data) override {
        {
            std::lock_guard guard(mutex_);
            log_.push_back({true, device_address, offset, data.size(), {data.begin(), data.end()}});
            check(offset, data.size());
            for (std::size_t i = 0; i < data.size(); ++i) {
                const std::size_t at = offset + i;
                cell(device_address, at) = data[i];
                if (device_address == cage::module_address && !sfp_a0_) {
                    if (at == 127) page_ = data[i];
                    if (at == 126) bank_ = data[i];
                }
            }
        }
        if (yield_) std::this_thread::yield();
    }

    bool pin_get(unsigned line) override { return pins[line]; }
    void pin_set(unsigned line, bool value) override { pins[line] = value; }
    bool module_present() override { return present; }

    bool sfp_signal_get(cage::sfp_signal signal) override {
        if (!sfp_lines_wired) throw std::system_error(ENOTSUP, std::generic_category(), "no sfp");
        return sfp_signals[signal];
    }
    void sfp_signal_set(cage::sfp_signal signal, bool value) override {
        if (!sfp_lines_wired) throw std::system_error(ENOTSUP, std::generic_category(), "no sfp");
        sfp_signals[signal] = value;
    }

  private:
    using page_bytes = std::array<std::uint8_t, 128>;

    page_bytes& upper(std::uint8_t bank, std::uint8_t page) {
        const std::uint8_t b = banked_ && page >= 0x10 ? bank : 0;
        auto [it, added] = pages_.try_emplace({b, page});
        if (added) it->second.fill(0);
        return it->second;
    }

    void check(std::uint8_t offset, std::size_t length) {
        if (fail_errno_ != 0) {
            const int error = fail_errno_;
            if (fail_count_ > 0 && --fail_count_ == 0) fail_errno_ = 0;
            throw std::system_error(error, std::generic_category(), "fake bus");
        }
        if (offset + length > 256)
            throw std::system_error(EINVAL, std::generic_category(), "past byte 255");
    }

    std::uint8_t& cell(std::uint8_t device_address, std::size_t at) {
        if (sfp_a0_) {
            if (device_address == cage::module_address) return (*sfp_a0_)[at];
            if (device_address == cage::sfp_diagnostics_address) return (*sfp_a2_)[at];
        }
        if (device_address != cage::module_address)
            throw std::system_error(ENXIO, std::generic_category(), "no device at this address");
        if (at < 128) return lower_[at];
        return upper(bank_, page_)[at - 128];
    }

    std::mutex mutex_;
    std::array<std::uint8_t, 128> lower_{};
    std::map<std::pair<std::uint8_t, std::uint8_t>, page_bytes> pages_;
    std::uint8_t page_ = 0;
    std::uint8_t bank_ = 0;
    bool banked_ = false;
    std::atomic<bool> yield_{false};
    int fail_errno_ = 0;
    int fail_count_ = 0;
    std::vector<transfer> log_;
    std::optional<std::array<std::uint8_t, 256>> sfp_a0_;
    std::optional<std::array<std::uint8_t, 256>> sfp_a2_;
};

}  // namespace qsfpd::test
