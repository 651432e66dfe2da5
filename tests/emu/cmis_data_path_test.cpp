#include <gtest/gtest.h>

#include <string>

#include "emu_test_support.hpp"

namespace qsfpd::emu::test {
namespace {

// The 400G-FR4 profile advertises (page 01h byte 144 = 45h) DPDeinit < 100 ms and DPInit
// < 500 ms; the module takes 99 and 499 ms. ModuleReady comes 800 ms after the module answers,
// ConfigInProgress lasts the profile's config_check (10 ms).
constexpr auto power_up = 800ms;
constexpr auto dp_init = 499ms;
constexpr auto dp_deinit = 99ms;
constexpr auto check = 10ms;

// The FR4's 100GAUI-2 application (AppSel 2) as four data paths of two lanes (DataPathID =
// first lane), and its 400GAUI-8 application (AppSel 1) as one data path from lane 1.
const bytes four_100g{0x20, 0x20, 0x24, 0x24, 0x28, 0x28, 0x2c, 0x2c};
const bytes one_400g(8, 0x10);

struct CmisDataPath : emu_test {
    module_emulator& ready(std::string_view stem = "qsfpdd_400g_fr4") {
        auto& m = insert(stem);
        clock->advance(power_up + dp_init);
        return m;
    }
    void stage(const bytes& config, std::uint8_t apply_mask) {
        select(0x10);
        write(145, config);
        write(143, {apply_mask});
        select(0x11);
    }
    bytes dp_states() { return read(128, 4); }
    bytes config_status() { return read(202, 4); }
    bytes active_set() { return read(206, 8); }
};

TEST_F(CmisDataPath, ApplyDeinitsUpdatesTheActiveSetAndInitsWithTheAdvertisedDurations) {
    ready();
    select(0x01);
    ASSERT_EQ(read1(144), 0x45);
    select(0x11);
    ASSERT_EQ(dp_states(), bytes(4, 0x44));
    ASSERT_EQ(active_set(), one_400g);
    select(0x10);
    write(162, {0x21, 0x43, 0x65, 0x07});  // RX output pre-cursor targets, a nibble per lane
    stage(four_100g, 0xff);
    select(0x10);
    EXPECT_EQ(read1(143), 0x00);  // ApplyDPInit is write-only
    select(0x11);
    EXPECT_EQ(config_status(), bytes(4, 0xcc));  // ConfigInProgress
    EXPECT_EQ(dp_states(), bytes(4, 0x44));
    clock->advance(check);
    EXPECT_EQ(dp_states(), bytes(4, 0x33));  // DPDeinit with the old configuration
    EXPECT_EQ(config_status(), bytes(4, 0xcc));
    EXPECT_EQ(read1(133), 0x00);  // transmitters off
    clock->advance(dp_deinit - 1ms);
    EXPECT_EQ(active_set(), one_400g);
    clock->advance(1ms);
    EXPECT_EQ(active_set(), four_100g);
    EXPECT_EQ(config_status(), bytes(4, 0x11));  // ConfigSuccess
    EXPECT_EQ(dp_states(), bytes(4, 0x22));      // DPInit with the new one
    EXPECT_EQ(read(223, 4), (bytes{0x21, 0x43, 0x65, 0x07}));
    clock->advance(dp_init - 1ms);
    EXPECT_EQ(dp_states(), bytes(4, 0x22));
    clock->advance(1ms);
    EXPECT_EQ(dp_states(), bytes(4, 0x44));
    EXPECT_EQ(read1(133), 0x0f);
}

struct rejection {
    const char* what;
    const char* stem;
    bytes staged;
    std::uint8_t mask;
    std::uint8_t status;  // ConfigStatus nibble of every lane in the mask
};

TEST_F(CmisDataPath, RejectedAppliesShowTheirCodeAndChangeNothingElse) {
    const bytes cisco_active(8, 0x00);
    for (const auto& r : std::vector<rejection>{
             {"AppSel 4: after the end of the FR4's list", "qsfpdd_400g_fr4", bytes(8, 0x40), 0xff,
              3},
             {"AppSel 1 of the Cisco cable: an empty descriptor", "qsfpdd_dac_cisco_sparse",
              bytes(8, 0x10), 0xff, 3},
             {"400GAUI-8 on four lanes only",
              "qsfpdd_400g_fr4",
              {0x10, 0x10, 0x10, 0x10, 0, 0, 0, 0},
              0x0f,
              4},
             {"100GAUI-2 starting on lane 2 (options 55h)",
              "qsfpdd_400g_fr4",
              {0x20, 0x22, 0x22, 0x24, 0x28, 0x28, 0x2c, 0x2c},
              0x06,
              4},
             {"lanes 1-4 of the 8-lane data path", "qsfpdd_400g_fr4", one_400g, 0x0f, 7},
         }) {
        SCOPED_TRACE(r.what);
        ready(r.stem);
        select(0x11);
        const auto active = active_set();
        const auto states = dp_states();
        stage(r.staged, r.mask);
        clock->advance(check);
        for (unsigned lane = 0; lane < 8; ++lane) {
            const auto nibble = (config_status()[lane / 2] >> (4 * (lane % 2))) & 0x0f;
            EXPECT_EQ(nibble, (r.mask >> lane) & 1 ? r.status : 0) << "lane " << lane + 1;
        }
        clock->advance(2s);
        EXPECT_EQ(active_set(), active);
        EXPECT_EQ(dp_states(), states);
        cage.remove();
    }
    // The Cisco cable's one application is AppSel 8, on all eight lanes.
    ready("qsfpdd_dac_cisco_sparse");
    select(0x11);
    EXPECT_EQ(active_set(), cisco_active);
    EXPECT_EQ(dp_states(), bytes(4, 0x11));  // no application, no data path
    stage(bytes(8, 0x80), 0xff);
    clock->advance(1s);
    EXPECT_EQ(config_status(), bytes(4, 0x11));
    EXPECT_EQ(active_set(), bytes(8, 0x80));
    EXPECT_EQ(dp_states(), bytes(4, 0x44));
}

TEST_F(CmisDataPath, ADeactivatedDataPathTakesTheSetAfterTheCheckAndInitsWhenTheModuleIsReady) {
    cage.pin_set(cage::line::lpmode, true);
    insert("qsfpdd_400g_fr4");
    clock->advance(5s);
    select(0x11);
    ASSERT_EQ(read1(3) & 0x0e, 0x02);  // ModuleLowPwr
    stage(four_100g, 0xff);
    EXPECT_EQ(config_status(), bytes(4, 0xcc));
    clock->advance(check);
    EXPECT_EQ(config_status(), bytes(4, 0x11));
    EXPECT_EQ(active_set(), four_100g);
    EXPECT_EQ(dp_states(), bytes(4, 0x11));
    cage.pin_set(cage::line::lpmode, false);
    clock->advance(power_up);
    EXPECT_EQ(dp_states(), bytes(4, 0x22));
    clock->advance(dp_init);
    EXPECT_EQ(dp_states(), bytes(4, 0x44));
    EXPECT_EQ(active_set(), four_100g);
    // DataPathDeinit on lanes 1-4 stops their data paths alone; an apply then lands at once.
    select(0x10);
    write(128, {0x0f});
    select(0x11);
    EXPECT_EQ(dp_states(), (bytes{0x33, 0x33, 0x44, 0x44}));
    clock->advance(dp_deinit);
    EXPECT_EQ(dp_states(), (bytes{0x11, 0x11, 0x44, 0x44}));
    EXPECT_EQ(read1(133), 0x0c);  // media lanes 1 and 2 carry host lanes 1-4
    stage({0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10}, 0xff);
    clock->advance(check);
    EXPECT_EQ(active_set().front(), 0x10);
    EXPECT_EQ(dp_states(), (bytes{0x11, 0x11, 0x33, 0x33}));
}

TEST_F(CmisDataPath, TheQuirkAnswersSuccessButKeepsTheOldSetAndApplyImmediateCopiesTheEq) {
    auto profile = module_profile::load_named("qsfpdd_400g_fr4");
    profile.config_success_keeps_old_active_set = true;
    cage.insert(std::move(profile));
    clock->advance(2s + power_up + dp_init);
    stage(four_100g, 0xff);
    clock->advance(check + dp_deinit + dp_init);
    EXPECT_EQ(config_status(), bytes(4, 0x11));
    EXPECT_EQ(active_set(), one_400g);
    EXPECT_EQ(dp_states(), bytes(4, 0x44));
    // ApplyImmediate copies the staged RX output EQ of its lanes at once, data paths untouched.
    select(0x10);
    write(162, {0x12, 0x34, 0x56, 0x78, 0x9a, 0xbc, 0xde, 0xf0, 0x11, 0x22, 0x33, 0x44});
    write(144, {0x03});
    EXPECT_EQ(read1(144), 0x00);
    select(0x11);
    EXPECT_EQ(read(223, 12),
              (bytes{0x12, 0, 0, 0, 0x9a, 0, 0, 0, 0x11, 0, 0, 0}));  // lanes 1 and 2
    EXPECT_EQ(dp_states(), bytes(4, 0x44));
}

TEST_F(CmisDataPath, TxDisableDarkensItsLaneAndLatchedLaneFlagsClearOnRead) {
    auto& m = ready();
    select(0x11);
    EXPECT_EQ(read1(133), 0x0f);
    select(0x10);
    write(130, {0x04});  // media lane 3
    select(0x11);
    for (int i = 0; i < 5; ++i) {
        for (std::uint8_t lane = 0; lane < 4; ++lane) {
            const auto tx_power = read16(static_cast<std::uint8_t>(154 + 2 * lane));
            const auto bias = read16(static_cast<std::uint8_t>(170 + 2 * lane));
            EXPECT_EQ(tx_power == 0 && bias == 0, lane == 2) << "lane " << lane + 1;
        }
        clock->advance(100ms);
    }
    EXPECT_EQ(read1(133), 0x0b);
    EXPECT_EQ(read(139, 8), bytes(8, 0));  // a dark lane raises no TX power or bias flags
    // A transient RX LOS latches once; the read clears it.
    m.flap(lane_flag::rx_los, 1, "10", flap_step::per_period, 100ms, false);
    clock->advance(300ms);
    EXPECT_EQ(polls(147, 0xff, {0ms, 0ms}), "20");
    // Not ready: no RX output.
    cage.pin_set(cage::line::lpmode, true);
    clock->advance(1s);
    EXPECT_EQ(read(132, 2), (bytes{0, 0}));
}

// --- profiles from the real CMIS dumps
// ------------------------------------------------------------

struct dumped {
    const char* stem;
    std::uint8_t revision;
    bool flat;
    unsigned applications;  // defined descriptors before the end of the list
    const char* part_number;
    std::uint8_t dp_lanes_1_2;  // page 11h byte 128 once ready (paged modules)
};

TEST_F(CmisDataPath, ProfilesOfRealModulesLoadAndDecodeAsDumped) {
    for (const auto& d :
         std::vector<dumped>{{"qsfpdd_400g_dr4_avago", 0x40, false, 2, "AFCT-93DRPHZ-AZ2", 0x44},
                             {"qsfpdd_400g_dr4_innolight", 0x30, false, 1, "T-DP4CNH-N00", 0x44},
                             {"qsfpdd_400g_cr8_amphenol", 0x30, true, 8, "NDYYYF-0001", 0},
                             {"qsfpdd_dac_cisco_sparse", 0x40, false, 1, "68-103205-02", 0x11},
                             {"qsfpdd_dac_fithonteng_flat", 0x30, true, 1, "CU4EP54-01000-EF", 0},
                             {"qsfpdd_400g_fr4", 0x40, false, 3, "EMU-QDD-400G-FR4", 0x44}}) {
        SCOPED_TRACE(d.stem);
        insert(d.stem);
        clock->advance(3s);
        EXPECT_EQ(read(0, 2), (bytes{0x18, d.revision}));
        EXPECT_EQ((read1(2) & 0x80) != 0, d.flat);
        auto descriptors = read(86, 32);
        select(0x01);
        if (!d.flat) {
            const auto more = read(223, 28);
            descriptors.insert(descriptors.end(), more.begin(), more.end());
        }
        EXPECT_EQ(read1(127), d.flat ? 0x00 : 0x01) << "page 01h only on a paged module";
        unsigned count = 0;
        for (std::size_t at = 0; at < descriptors.size() && descriptors[at] != 0xff; at += 4)
            count += descriptors[at] != 0x00;
        EXPECT_EQ(count, d.applications);
        select(0x00);
        const auto pn = read(148, 16);
        EXPECT_EQ(std::string(pn.begin(), pn.end()).substr(0, std::string(d.part_number).size()),
                  d.part_number);
        // A paged module runs its state machine; a flat one keeps byte 3 as dumped.
        if (!d.flat) {
            EXPECT_EQ(read1(3) & 0x0e, 0x06);
            select(0x11);
            EXPECT_EQ(read1(128), d.dp_lanes_1_2);
            // Revision 3.0 names page 10h byte 128 DataPathPwrUp: clearing it stops the lanes.
            select(0x10);
            write(128, {static_cast<std::uint8_t>(d.revision == 0x30 ? 0x00 : 0xff)});
            select(0x11);
            if (d.dp_lanes_1_2 == 0x44) {
                EXPECT_EQ(read1(128), 0x33);
            }
        }
        cage.remove();
    }
}

}  // namespace
}  // namespace qsfpd::emu::test
