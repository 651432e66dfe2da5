#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "handler_test_support.hpp"
#include "qsfp_optical_device_handler.hpp"

namespace qsfpd::handler_test {

// SFF-8636 lower page bytes the optical tests drive.
inline constexpr std::uint8_t rx_los_byte = 3;
inline constexpr std::uint8_t tx_fault_byte = 4;
inline constexpr std::uint8_t rx_lol_byte = 5;
inline constexpr std::uint8_t temp_flags_byte = 6;
inline constexpr std::uint8_t rx_power_byte = 34;
inline constexpr std::uint8_t rx_rate_byte = 87;
inline constexpr std::uint8_t tx_rate_byte = 88;
inline constexpr std::uint8_t power_control_byte = 93;

// The module name the handlers end their messages with (the cage device of handler_fixture).
inline const std::string name = "qsfp3";

class optical_fixture : public handler_fixture {
  protected:
    // A lane variant (the constructors without data model and lane count), started.
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
    std::uint8_t upper(std::uint8_t page, std::uint8_t offset) {
        return module().peek({0, page}, offset);
    }
    void poke_upper(std::uint8_t page, std::uint8_t offset, std::uint8_t value) {
        module().poke({0, page}, offset, value);
    }
    std::uint64_t writes() const { return bus->counters(cage_emu->bus_index()).writes; }

    // One monitoring cycle, 100 ms after the previous one.
    void cycle(qsfp_optical_device_handler& h) {
        clock->run_for(100ms);
        h.run_periodic_tasks();
    }
    // One cycle with the latched flag byte set just before it (the cycle's read clears it).
    void cycle_with(qsfp_optical_device_handler& h, std::uint8_t byte, std::uint8_t value) {
        poke_lower(byte, value);
        cycle(h);
    }

    int severity(const std::string& alarm) {
        return read_json("qsfp/alarms/" + alarm + "/severity").GetInt();
    }
    bool read_bool(const std::string& path) { return read_json(path).GetBool(); }
    double read_double(const std::string& path) { return read_json(path).GetDouble(); }

    void set_bool(const std::string& path, bool value) {
        db.lookup(path)->set(path, dh::json_value(value));
    }
    void set_uint(const std::string& path, unsigned value) {
        db.lookup(path)->set(path, dh::json_value(value));
    }
    rapidjson::Document run_bool(const std::string& path, bool value) {
        rapidjson::Document out;
        dh::json_value arg(value);
        db.lookup(path)->run(path, arg, out.GetAllocator(), out);
        return out;
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

    // Texts of the records starting with `family`, in order (the code trace left on).
    std::vector<std::string> logged(std::string_view family) const {
        std::vector<std::string> out;
        for (const auto& r : logs.find(family))
            out.push_back(r.text);
        return out;
    }
    // Checks that the records of `family` are exactly `expected`, each a full message.
    void expect_logged(std::string_view family, const std::vector<std::string>& expected) {
        const auto got = logged(family);
        ASSERT_EQ(got.size(), expected.size()) << "records of " << family;
        for (std::size_t i = 0; i < got.size(); ++i)
            EXPECT_TRUE(got[i].starts_with(expected[i]) &&
                        (got[i].size() == expected[i].size() ||
                         !std::isalnum(static_cast<unsigned char>(got[i][expected[i].size()]))))
                << "record " << i << ": " << got[i] << "\nexpected: " << expected[i];
    }
};

}  // namespace qsfpd::handler_test
