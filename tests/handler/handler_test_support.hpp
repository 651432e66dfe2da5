#pragma once

#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "cage_emulator.hpp"
#include "emu_bus.hpp"
#include "log_capture.hpp"
#include "module_profile.hpp"
#include "msg_log.hpp"
#include "qsfp_device.hpp"
#include "qsfp_device_handler.hpp"
#include "qsfp_reg_map.hpp"
#include "virtual_clock.hpp"

namespace qsfpd::handler_test {

using namespace std::chrono_literals;

// SFF-8636 byte 86: TX disable of lanes 1-4 (bits 0-3).
inline constexpr std::uint8_t tx_disable_byte = 86;

// The smallest concrete handler: admin status drives the transmitters through TX disable, as an
// optical handler would, so that tests can see whether the base let the change through.
class test_handler : public qsfp_device_handler {
  public:
    using qsfp_device_handler::qsfp_device_handler;

    std::atomic<int> periodic_runs{0};
    void run_periodic_tasks() override { ++periodic_runs; }

    void start() {
        qsfp_device_handler::start();
        activate_value_group();
        set_dh_ready(true);
    }

  protected:
    void _set_port_admin_status(bool up) override {
        reg_map_->write_register(tx_disable_byte, up ? 0x00 : 0x0F, 0x0F);
    }
};

// A cage of the emulator in virtual time, a database, and a $QSFPD_ROOT of our own so that no
// platform marker of the machine running the tests is seen.
class handler_fixture : public ::testing::Test {
  protected:
    void SetUp() override {
        static int counter = 0;
        root = std::filesystem::temp_directory_path() /
               ("qsfpd-dh-" + std::to_string(::getpid()) + "-" + std::to_string(counter++));
        std::filesystem::create_directories(root);
        ::setenv("QSFPD_ROOT", root.c_str(), 1);
    }
    void TearDown() override {
        ::unsetenv("QSFPD_ROOT");
        std::filesystem::remove_all(root);
    }

    void insert(std::string_view profile_name) {
        auto profile = emu::module_profile::load_named(profile_name);
        const auto settle = profile.i2c_not_ready + profile.power_up;
        cage_emu->insert(std::move(profile));
        clock->advance(settle);
        device = std::make_shared<cage::qsfp_device>("qsfp3", cage_emu);
        regs = std::make_shared<cage::qsfp_reg_map>(*device);
    }

    std::shared_ptr<test_handler> make_handler(qsfp_flags_s flags = {}) {
        return std::make_shared<test_handler>(db, device, "qsfp", regs, "VENDOR", "PN-1",
                                              "PART NAME", "a description", flags, "model-1", 3, 4,
                                              clock);
    }

    void make_marker(const std::string& name) {
        std::filesystem::create_directories(root / "proc" / "device-tree");
        std::ofstream(root / "proc" / "device-tree" / name).put('\n');
    }

    std::uint64_t transactions() const { return bus->counters(cage_emu->bus_index()).transactions; }

    // A node's value as JSON, read the way the server reads it.
    rapidjson::Document read_json(const std::string& path) {
        const auto node = db.lookup(path);
        rapidjson::Document doc;
        const std::string text = node->get_text(path);
        doc.Parse(text.c_str(), text.size());
        EXPECT_FALSE(doc.HasParseError()) << path << ": " << text;
        return doc;
    }
    std::string read_string(const std::string& path) {
        const auto doc = read_json(path);
        if (!doc.IsString()) {
            ADD_FAILURE() << path << " is not a string";
            return {};
        }
        return doc.GetString();
    }
    // A string node whose value is itself a JSON document (the page dumps).
    rapidjson::Document read_embedded_json(const std::string& path) {
        const std::string text = read_string(path);
        rapidjson::Document doc;
        doc.Parse(text.c_str(), text.size());
        EXPECT_FALSE(doc.HasParseError()) << path << ": " << text;
        return doc;
    }
    void write(const std::string& path, unsigned value) {
        db.lookup(path)->set(path, dh::json_value(value));
    }

    // Bytes as the module answers them now, read straight from the cage.
    std::array<std::uint8_t, 128> cage_bytes(std::uint8_t page, bool upper) {
        std::array<std::uint8_t, 128> out{};
        if (upper) {
            const std::array<std::uint8_t, 1> select{page};
            cage_emu->i2c_write(cage::module_address, 127, select);
        }
        cage_emu->i2c_read(cage::module_address, upper ? 128 : 0, out);
        // We moved the page select behind the device's back.
        if (device) device->invalidate_cache();
        return out;
    }

    std::filesystem::path root;
    std::shared_ptr<virtual_clock> clock = std::make_shared<virtual_clock>();
    std::shared_ptr<emu::emu_bus> bus = std::make_shared<emu::emu_bus>(clock);
    std::shared_ptr<emu::cage_emulator> cage_emu =
        std::make_shared<emu::cage_emulator>(clock, bus, "qsfp3");
    std::shared_ptr<cage::qsfp_device> device;
    std::shared_ptr<cage::qsfp_reg_map> regs;
    msg_log::log_capture logs;
    dh_db db;
};

}  // namespace qsfpd::handler_test
