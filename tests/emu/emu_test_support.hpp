#pragma once

#include <gtest/gtest.h>

#include <bit>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "../support/errno_of.hpp"
#include "cage_emulator.hpp"
#include "emu_bus.hpp"
#include "module_profile.hpp"
#include "virtual_clock.hpp"

namespace qsfpd::emu::test {

using namespace std::chrono_literals;
using bytes = std::vector<std::uint8_t>;
using qsfpd::test::error_of;

// One cage on its own bus, in virtual time.
struct cage_fixture {
    std::shared_ptr<virtual_clock> clock = std::make_shared<virtual_clock>();
    std::shared_ptr<emu_bus> bus = std::make_shared<emu_bus>(clock);
    cage_emulator cage{clock, bus, "cage-1"};

    // Inserts a profile of emu/profiles/ and waits (virtually) until the module answers.
    module_emulator& insert(std::string_view stem) {
        auto profile = module_profile::load_named(stem);
        const auto window = profile.i2c_not_ready;
        cage.insert(std::move(profile));
        clock->advance(window);
        return *cage.module();
    }
    // A pulse on the reset line, then the wait until the module answers again.
    void reset() {
        cage.pin_set(cage::line::reset, true);
        cage.pin_set(cage::line::reset, false);
        clock->advance(cage.module()->profile().i2c_not_ready);
    }

    bytes read(std::uint8_t offset, std::size_t n, std::uint8_t device = 0x50) {
        bytes b(n);
        cage.i2c_read(device, offset, b);
        return b;
    }
    std::uint8_t read1(std::uint8_t offset, std::uint8_t device = 0x50) {
        return read(offset, 1, device)[0];
    }
    std::uint16_t read16(std::uint8_t offset, std::uint8_t device = 0x50) {
        const auto b = read(offset, 2, device);
        return static_cast<std::uint16_t>(b[0] << 8 | b[1]);
    }
    void write(std::uint8_t offset, bytes data, std::uint8_t device = 0x50) {
        cage.i2c_write(device, offset, data);
    }
    void select(std::uint8_t page, std::uint8_t bank = 0) { write(126, {bank, page}); }
    // Bits `mask` of byte `offset`, read after each wait in turn and shifted down: one hex digit
    // per read ("10" for a latched flag that the first read cleared).
    std::string polls(std::uint8_t offset, std::uint8_t mask,
                      std::initializer_list<std::chrono::milliseconds> waits) {
        std::string digits;
        for (const auto wait : waits) {
            clock->advance(wait);
            digits += "0123456789abcdef"[(read1(offset) & mask) >> std::countr_zero(mask)];
        }
        return digits;
    }
    // errno of a read that throws, or 0.
    int read_errno(std::uint8_t offset, std::size_t n = 1, std::uint8_t device = 0x50) {
        return error_of([&] { read(offset, n, device); });
    }
};

struct emu_test : ::testing::Test, cage_fixture {};

}  // namespace qsfpd::emu::test
