// VDM through the CMIS base handler against the emulated 400ZR+ (VDM) and 400ZR (none), in
// virtual time: the published observables agree with the module's pages under their formats, the
// flag nibble rule, the refusals, and the reads a refresh costs.

#include <cmath>

#include <fmt/format.h>

#include "../handler/handler_test_support.hpp"
#include "qsfp_dd_device_handler.hpp"
#include "vdm_observables.hpp"

namespace qsfpd::handler_test {
namespace {

using cmis::VDM_format;
using cmis::VDM_observable_types;
using cmis::VDM_sample_type;

class test_dd_handler : public qsfp_dd_device_handler {
  public:
    using qsfp_dd_device_handler::qsfp_dd_device_handler;
};

// Where the module's descriptor pages put a type: group and slot.
struct slot_of {
    unsigned group = 0;
    unsigned slot = 0;
    unsigned threshold_set = 0;
};

class VdmHandler : public handler_fixture {
  protected:
    std::shared_ptr<test_dd_handler> handler(std::string part = "EMU-QDD-400G-ZRP") {
        auto h =
            std::make_shared<test_dd_handler>(db, device, "qsfp", regs, "VENDOR", part, "PART NAME",
                                              "d", qsfp_flags_s{}, "optical", 3, 4, clock);
        h->start();
        return h;
    }
    std::shared_ptr<test_dd_handler> zr_plus() {
        insert("qsfpdd_400zr_plus");
        return handler();
    }
    std::optional<slot_of> find(VDM_observable_types type) {
        for (unsigned group = 0; group < 4; ++group)
            for (unsigned slot = 0; slot < 64; ++slot) {
                const page_id_t page{0, static_cast<std::uint8_t>(0x20 + group)};
                const auto at = static_cast<std::uint8_t>(128 + 2 * slot);
                if (!module().memory().has_page(page)) break;
                if (module().peek(page, at + 1) == static_cast<std::uint8_t>(type))
                    return slot_of{group, slot,
                                   static_cast<unsigned>(module().peek(page, at) >> 4)};
            }
        return std::nullopt;
    }
    std::uint16_t peek16(std::uint8_t page, unsigned offset) {
        return static_cast<std::uint16_t>(
            module().peek({0, page}, static_cast<std::uint8_t>(offset)) << 8 |
            module().peek({0, page}, static_cast<std::uint8_t>(offset + 1)));
    }
    double number(const std::string& node) { return std::stod(values(node)); }
    using page_id_t = emu::page_id;
};

// Decoding written out here rather than borrowed from the code under test.
double decoded(VDM_format format, std::uint16_t raw) {
    switch (format) {
        case VDM_format::unsigned16:
            return raw;
        case VDM_format::signed16:
            return raw >= 0x8000 ? static_cast<double>(raw) - 65536.0 : raw;
        case VDM_format::float16:
            return (raw & 0x7FF) * std::pow(10.0, static_cast<int>(raw >> 11) - 24);
    }
    return NAN;
}

TEST_F(VdmHandler, EveryPublishedNodeAgreesWithTheModulePagesUnderItsFormat) {
    auto h = zr_plus();
    ASSERT_EQ(h->register_VDM_nodes(), 29u);
    expect_logged("VDM", {"VDM group support register: 0x01"});
    static constexpr std::pair<const char*, unsigned> thresholds[] = {
        {"/highAlarm", 0}, {"/lowAlarm", 2}, {"/highWarning", 4}, {"/lowWarning", 6}};
    for (const auto& row : cmis::cmis5_vdm_observables()) {
        const std::string name = "data/" + std::string(row.node);
        const auto at = find(row.type);
        ASSERT_TRUE(at) << name;
        const double value = number(name);
        const auto sample_page = static_cast<std::uint8_t>(0x24 + at->group);
        EXPECT_DOUBLE_EQ(value,
                         decoded(row.format, peek16(sample_page, 128 + 2 * at->slot)) * row.scale)
            << name;
        const auto threshold_page = static_cast<std::uint8_t>(0x28 + at->group);
        for (const auto& [suffix, offset] : thresholds)
            EXPECT_DOUBLE_EQ(
                number(name + suffix),
                decoded(row.format, peek16(threshold_page, 128 + 8 * at->threshold_set + offset)) *
                    row.scale)
                << name << suffix;
        // The flag byte as the module answered the handler's read (reads clear it).
        const unsigned p = 64 * at->group + at->slot;
        const std::uint8_t byte = module().peek({0, 0x2C}, static_cast<std::uint8_t>(128 + p / 2));
        EXPECT_EQ(values(name + "/flag"), std::to_string(p < 2 ? byte & 0x0F : byte >> 4)) << name;
    }
}

// The handler's scales against the emulator's model of the module, in engineering units: a wrong
// scale or format in the table is off by orders of magnitude.
TEST_F(VdmHandler, PublishedValuesAreInTheUnitsOfTheirNames) {
    auto h = zr_plus();
    h->register_VDM_nodes();
    struct row {
        const char* node;
        double nominal;
        double tolerance;
    };
    const row rows[] = {
        {"debug/laserTemperature", 50.0, 0.21},
        {"debug/Tx_Power", 0.0, 0.06},
        {"debug/rxSignalPower", -12.0, 0.21},
        {"debug/TEC-Current", 12.0, 1.01},
        {"debug/Modulator_Bias_X_Q-Current", 49.0, 1.01},
        {"debug/mer", 17.5, 0.31},
        {"debug/SOPMD_high_granularis", 12.0, 2.01},
        {"debug/SOPMD_low_granularity", 12.0, 2.5},
        {"debug/laserFrequencyError", 0.0, 55.0},
        {"debug/eSNR_Media_Input", 18.0, 0.31},
        {"debug/EVM_modem", 8.0, 0.51},
        {"debug/clock_recovery_loop", 5.0, 1.01},
        {"preFecBerHost", 1.0e-9, 5.1e-10},
        {"preFecBerAverageHost", 1.0e-9, 1e-12},
        {"debug/preFecBerMaxHost", 1.5e-9, 1e-12},
        {"frameErrCntAverageHost", 1.5e-11, 1e-14},
        {"debug/laserTemperature/highAlarm", 75.0, 0.0},
        {"debug/Tx_Power/lowAlarm", -18.0, 1e-9},
        {"preFecBerHost/highAlarm", 1.0e-5, 1e-15},
    };
    for (const auto& r : rows)
        EXPECT_NEAR(number(std::string("data/") + r.node), r.nominal, r.tolerance) << r.node;
    // Counters since power-up grow with time.
    const double before = number("data/debug/frameErrCntAccumulated");
    clock->run_for(10s);
    EXPECT_GT(number("data/debug/frameErrCntAccumulated"), before);
}

TEST_F(VdmHandler, InLowPowerTheSamplesIdle) {
    auto h = zr_plus();
    h->register_VDM_nodes();
    device->pin_set(cage::line::lpmode, true);
    clock->run_for(3s);
    EXPECT_EQ(values("data/debug/Tx_Power data/debug/laserTemperature data/preFecBerHost"),
              "-40.0 30.0 0.0");
}

TEST_F(VdmHandler, FlagsOfPositionsZeroAndOneComeFromTheLowNibbleOfTheFirstByte) {
    auto h = zr_plus();
    h->register_VDM_nodes();
    // Positions 0 (laser age) and 1 (TEC current) share flag byte 128; position 3 (laser
    // temperature) has the high nibble of byte 129. Drive each over a high warning in turn.
    struct row {
        unsigned slot;
        unsigned set;
        std::uint16_t high_warning;  // below the model's value
    };
    const auto age = static_cast<unsigned>(VDM_observable_types::laser_age);
    const auto tec = static_cast<unsigned>(VDM_observable_types::tec_current);
    const auto temp = static_cast<unsigned>(VDM_observable_types::laser_temperature);
    auto flags = [&] {
        return fmt::format("{} {} {}", h->get_VDM_flags(VDM_observable_types::laser_age),
                           h->get_VDM_flags(VDM_observable_types::tec_current),
                           h->get_VDM_flags(VDM_observable_types::laser_temperature));
    };
    auto drive = [&](unsigned type, std::uint16_t limit) {
        const auto at = find(static_cast<VDM_observable_types>(type));
        ASSERT_TRUE(at);
        const auto offset = static_cast<std::uint8_t>(128 + 8 * at->threshold_set + 4);
        module().poke({0, 0x28}, offset, static_cast<std::uint8_t>(limit >> 8));
        module().poke({0, 0x28}, offset + 1, static_cast<std::uint8_t>(limit));
    };
    EXPECT_EQ(flags(), "0 0 0");
    drive(age, 1);  // laser age 3 % > 1 %
    clock->run_for(1s);
    EXPECT_EQ(flags(), "4 4 0");  // both positions read the low nibble (slot 0's)
    drive(age, 90);
    drive(tec, 1);  // TEC current 12 % > 0.003 %: slot 1, the high nibble of byte 128
    clock->run_for(1s);
    EXPECT_EQ(flags(), "0 0 0");
    drive(tec, 80 * 32767 / 100);
    drive(temp, 40 * 256);  // laser temperature 50 > 40 degC
    clock->run_for(1s);
    EXPECT_EQ(flags(), "0 0 4");
    // Within one refresh period the flags are those of the period's one read.
    EXPECT_EQ(flags(), "0 0 4");
}

TEST_F(VdmHandler, AModuleWithoutVdmServesNoNodeAndSaysSoOnce) {
    // The 400ZR (CMIS 4.0) advertises page 03h only; a flat-memory cable has no page 01h at all.
    const std::pair<const char*, const char*> modules[] = {
        {"qsfpdd_400zr", "EMU-QDD-400G-ZR"},
        {"qsfpdd_dac_fithonteng_flat", "CU4EP54-01000-EF"},
    };
    for (const auto& [profile, part] : modules) {
        insert(profile);
        auto h = handler(part);
        EXPECT_EQ(h->register_VDM_nodes(), 0u) << profile;
        EXPECT_EQ(h->register_VDM_nodes(), 0u) << profile;
        EXPECT_FALSE(h->VDM_init()) << profile;
        for (const auto& row : cmis::cmis5_vdm_observables())
            EXPECT_EQ(db.find("qsfp/data/" + std::string(row.node)), nullptr) << row.node;
        EXPECT_EQ(error_of([&] {
                      h->get_VDM_sample_float(VDM_observable_types::pre_fec_ber_cur_host,
                                              VDM_sample_type::sample, 1.0);
                  }).text(),
                  "Type not implemented");
    }
    expect_logged("VDM",
                  {"VDM not supported! Advertising: 0x04", "VDM not supported! Advertising: 0x00"});
}

TEST_F(VdmHandler, ATypeTheModuleDoesNotListIsNotImplemented) {
    auto h = zr_plus();
    h->VDM_init();
    // The ZR+ lists no CFO (141) and no Q-factor (151).
    for (const auto& op : std::vector<std::function<void()>>{
             [&] { h->get_VDM_sample_int(VDM_observable_types::cfo, VDM_sample_type::sample, 1); },
             [&] {
                 h->get_VDM_sample_unsigned(VDM_observable_types::q_factor,
                                            VDM_sample_type::high_alarm, 1);
             },
             [&] { h->get_VDM_flags(VDM_observable_types::cfo); },
             [&] { h->set_VDM_mask(VDM_observable_types::cfo, 0x0F); },
         }) {
        const auto e = error_of(op);
        EXPECT_EQ(e.text(), "Type not implemented");
        EXPECT_EQ(e.code(), -22);
    }
}

TEST_F(VdmHandler, DescriptorsOfUnknownTypesAreSkippedAndTheRestPublished) {
    insert("qsfpdd_400zr_plus");
    // Slot 20 of group 1: a vendor type; slot 21: a second laser temperature (the first wins).
    module().poke({0, 0x20}, 128 + 40, 0x20);
    module().poke({0, 0x20}, 128 + 41, 100);
    module().poke({0, 0x20}, 128 + 42, 0x00);
    module().poke({0, 0x20}, 128 + 43,
                  static_cast<std::uint8_t>(VDM_observable_types::laser_temperature));
    auto h = handler();
    EXPECT_EQ(h->register_VDM_nodes(), 29u);
    expect_logged("VDM descriptor",
                  {"VDM descriptor 20 of group 1 skipped: type 100 not implemented qsfp3"});
    const double temperature = number("data/debug/laserTemperature");  // reads the page first
    EXPECT_DOUBLE_EQ(temperature, static_cast<std::int16_t>(peek16(0x24, 128 + 2 * 3)) / 256.0);
}

TEST_F(VdmHandler, AllNodesOfAPeriodCostOneReadPerGroupAndOneForTheFlags) {
    auto h = zr_plus();
    h->register_VDM_nodes();
    std::vector<std::string> nodes;
    for (const auto& row : cmis::cmis5_vdm_observables())
        for (const char* suffix :
             {"", "/flag", "/highAlarm", "/lowAlarm", "/highWarning", "/lowWarning"})
            nodes.push_back("data/" + std::string(row.node) + suffix);
    auto read_all = [&] {
        const auto before = transactions();
        for (const auto& n : nodes)
            values(n);
        return transactions() - before;
    };
    // 174 nodes. First period: five blocks (samples of groups 1 and 2, the flags, the two
    // threshold pages), each a page select and a read.
    const auto first = read_all();
    EXPECT_EQ(first, 10u);
    EXPECT_EQ(read_all(), 0u);  // same period: all from the cache
    clock->run_for(qsfpd::cmis::vdm_map::refresh_period);
    const auto next = read_all();
    EXPECT_EQ(next, 6u);  // the thresholds stay cached
    h->VDM_refresh();
    EXPECT_EQ(read_all(), next);
    RecordProperty("vdm_transactions_first_period", static_cast<int>(first));
    RecordProperty("vdm_transactions_per_period", static_cast<int>(next));
}

TEST_F(VdmHandler, TheMaskIsWrittenIntoItsNibbleOfTheFlagByte) {
    auto h = zr_plus();
    h->VDM_init();
    // The flag page is read-only on the emulated module; open it to see where the writes land.
    module().memory().set_writable({0, 0x2C}, 128, 255);
    h->set_VDM_mask(VDM_observable_types::laser_age, 0x35);          // position 0: bits 7-4
    h->set_VDM_mask(VDM_observable_types::laser_temperature, 0x35);  // position 3: bits 3-0
    EXPECT_EQ(module().peek({0, 0x2C}, 128), 0x30);
    EXPECT_EQ(module().peek({0, 0x2C}, 129), 0x05);
}

}  // namespace
}  // namespace qsfpd::handler_test
