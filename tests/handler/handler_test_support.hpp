#pragma once

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <array>
#include <chrono>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "../support/temp_dir.hpp"
#include "cage_emulator.hpp"
#include "emu_bus.hpp"
#include "log_capture.hpp"
#include "module_profile.hpp"
#include "msg_log.hpp"
#include "qsfp_device.hpp"
#include "qsfp_device_handler.hpp"
#include "qsfp_optical_device_handler.hpp"
#include "qsfp_reg_map.hpp"
#include "virtual_clock.hpp"

namespace qsfpd::handler_test {

using namespace std::chrono_literals;
using texts = std::vector<std::string>;

// SFF-8636 lower page bytes the tests drive.
inline constexpr std::uint8_t rx_los_byte = 3;
inline constexpr std::uint8_t tx_fault_byte = 4;
inline constexpr std::uint8_t rx_lol_byte = 5;
inline constexpr std::uint8_t temp_flags_byte = 6;
inline constexpr std::uint8_t rx_power_byte = 34;
inline constexpr std::uint8_t tx_disable_byte = 86;  // lanes 1-4 in bits 0-3
inline constexpr std::uint8_t rx_rate_byte = 87;
inline constexpr std::uint8_t tx_rate_byte = 88;
inline constexpr std::uint8_t power_control_byte = 93;

// The module name the handlers end their messages with (the cage device of handler_fixture).
inline const std::string name = "qsfp3";

// The smallest concrete handler: admin status drives the transmitters through TX disable, as an
// optical handler would, so that tests can see whether the base let the change through.
class test_handler : public qsfp_device_handler {
  public:
    using qsfp_device_handler::qsfp_device_handler;
    void run_periodic_tasks() override {}
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
    // A started test handler on a freshly inserted module.
    std::shared_ptr<test_handler> started(std::string_view profile = "qsfp28_100g_lr4",
                                          qsfp_flags_s flags = {}) {
        insert(profile);
        auto h = make_handler(flags);
        h->start();
        return h;
    }
    // An optical lane variant (the constructors without data model and lane count), started.
    template <class H>
    std::shared_ptr<H> make_variant() {
        auto h = std::make_shared<H>(db, device, "qsfp", regs, "VENDOR", "PN-1", "PART NAME",
                                     "a description", qsfp_flags_s{}, 3, 4, clock);
        h->start();
        return h;
    }

    emu::module_emulator& module() { return *cage_emu->module(); }
    std::uint8_t lower(std::uint8_t offset) { return module().peek({}, offset); }
    void poke_lower(std::uint8_t offset, std::uint8_t value) { module().poke({}, offset, value); }
    void poke_upper(std::uint8_t page, std::uint8_t offset, std::uint8_t value) {
        module().poke({0, page}, offset, value);
    }
    // RX and TX rate select bytes together.
    std::pair<int, int> rate_select() { return {lower(rx_rate_byte), lower(tx_rate_byte)}; }
    std::uint64_t transactions() const { return bus->counters(cage_emu->bus_index()).transactions; }
    std::uint64_t writes() const { return bus->counters(cage_emu->bus_index()).writes; }
    // Bytes as the module answers them now, read straight from the cage.
    std::vector<std::uint8_t> cage_bytes(std::uint8_t page, bool upper) {
        std::vector<std::uint8_t> out(128);
        if (upper)
            cage_emu->i2c_write(cage::module_address, 127, std::array<std::uint8_t, 1>{page});
        cage_emu->i2c_read(cage::module_address, upper ? 128 : 0, out);
        // We moved the page select behind the device's back.
        if (device) device->invalidate_cache();
        return out;
    }

    // One monitoring cycle, 100 ms after the previous one, with the latched flag byte set just
    // before it (the cycle's read clears it).
    void cycle_with(qsfp_optical_device_handler& h, std::uint8_t byte, std::uint8_t value) {
        poke_lower(byte, value);
        clock->run_for(100ms);
        h.run_periodic_tasks();
    }

    // The JSON texts of the nodes below "qsfp/" named in `paths`, space-separated like the paths:
    // exact, so a value that should read 23.4 or 0 fails as 23.400000000000002 or -0.0.
    std::string values(const std::string& paths) {
        std::istringstream in(paths);
        std::string out;
        for (std::string path; in >> path;)
            out += (out.empty() ? "" : " ") + db.lookup("qsfp/" + path)->get_text("qsfp/" + path);
        return out;
    }
    int severity(const std::string& alarm) {
        return std::stoi(values("alarms/" + alarm + "/severity"));
    }
    // A page dump: a string node whose value is itself a JSON document.
    rapidjson::Document dump(const std::string& path) {
        rapidjson::Document text, doc;
        text.Parse(values(path).c_str());
        doc.Parse(text.IsString() ? text.GetString() : "");
        EXPECT_FALSE(doc.HasParseError()) << path;
        return doc;
    }
    template <class T>
    void write(const std::string& path, T value) {
        db.lookup(path)->set(path, dh::json_value(value));
    }

    // The error an operation ends with; a failure when it succeeds.
    static dh_error error_of(const std::function<void()>& op) {
        try {
            op();
        } catch (const dh_error& e) {
            return e;
        }
        ADD_FAILURE() << "no error";
        return dh_error(0, "");
    }
    // Texts of the records starting with `family`, in order, without their code trace.
    texts logged(std::string_view family) const {
        texts out;
        for (const auto& r : logs.find(family))
            out.push_back(r.text.substr(0, r.text.rfind(" (")));
        return out;
    }
    void expect_logged(std::string_view family, const texts& expected) {
        EXPECT_EQ(logged(family), expected) << "records starting with " << family;
    }

    test::qsfpd_root root{"dh"};
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
