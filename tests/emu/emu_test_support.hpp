#pragma once

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "cage_emulator.hpp"
#include "emu_bus.hpp"
#include "module_profile.hpp"
#include "virtual_clock.hpp"

namespace qsfpd::emu::test {

using namespace std::chrono_literals;

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

    std::uint8_t read1(std::uint8_t offset, std::uint8_t device = 0x50) {
        std::array<std::uint8_t, 1> b{};
        cage.i2c_read(device, offset, b);
        return b[0];
    }
    std::uint16_t read16(std::uint8_t offset, std::uint8_t device = 0x50) {
        std::array<std::uint8_t, 2> b{};
        cage.i2c_read(device, offset, b);
        return static_cast<std::uint16_t>(b[0] << 8 | b[1]);
    }
    std::vector<std::uint8_t> read(std::uint8_t offset, std::size_t n, std::uint8_t device = 0x50) {
        std::vector<std::uint8_t> b(n);
        cage.i2c_read(device, offset, b);
        return b;
    }
    void write1(std::uint8_t offset, std::uint8_t value, std::uint8_t device = 0x50) {
        const std::array<std::uint8_t, 1> b{value};
        cage.i2c_write(device, offset, b);
    }
    void select(std::uint8_t page, std::uint8_t bank = 0) {
        const std::array<std::uint8_t, 2> b{bank, page};
        cage.i2c_write(0x50, 126, b);
    }
    // errno of a transfer that throws, or 0.
    int read_errno(std::uint8_t offset, std::size_t n = 1, std::uint8_t device = 0x50) {
        try {
            read(offset, n, device);
        } catch (const std::system_error& e) {
            return e.code().value();
        }
        return 0;
    }
};

}  // namespace qsfpd::emu::test
