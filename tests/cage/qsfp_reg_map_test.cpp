#include "qsfp_reg_map.hpp"

#include <gtest/gtest.h>

#include "errno_of.hpp"

#include <functional>
#include <set>
#include <string>
#include <system_error>

#include "fake_transport.hpp"
#include "log_capture.hpp"
#include "module_dump.hpp"

namespace qsfpd::cage {
namespace {

using test::fake_transport;

struct module_on_bus {
    explicit module_on_bus(const std::string& dump) : bus(std::make_shared<fake_transport>()) {
        bus->set_banked(true);
        bus->load_flat(test::load_module_dump(dump));
    }
    std::shared_ptr<fake_transport> bus;
    qsfp_device device{"cage", bus};
    qsfp_reg_map map{device};
};

using qsfpd::test::error_of;

// Golden identities: vendor, part number, revision and serial number as the dumps' sources state
// them (index.json), identifier and revision compliance as the module declares them.
struct identity_case {
    const char* dump;
    std::uint8_t identifier;
    std::uint8_t revision_compliance;
    const char* vendor;
    const char* part;
    const char* rev;
    const char* serial;
    const char* date;
};

void PrintTo(const identity_case& c, std::ostream* os) {
    *os << c.dump;
}

class identity_test : public ::testing::TestWithParam<identity_case> {};

TEST_P(identity_test, reads_the_golden_identity) {
    const auto& c = GetParam();
    module_on_bus m(c.dump);
    EXPECT_EQ(m.map.get_identifier(), c.identifier);
    EXPECT_EQ(m.map.get_status_revision_compliance(), c.revision_compliance);
    EXPECT_EQ(m.map.get_vendor_name(), c.vendor);
    EXPECT_EQ(m.map.get_part_number(), c.part);
    EXPECT_EQ(m.map.get_revision(), c.rev);
    EXPECT_EQ(m.map.get_serial_number(), c.serial);
    EXPECT_EQ(m.map.get_date_code(), c.date);
}

INSTANTIATE_TEST_SUITE_P(
    module_dumps, identity_test,
    ::testing::Values(
        // SFF-8636 revision compliance 07h: SFF-8636 rev 2.5-2.7; 05h: rev 1.5.
        identity_case{"sff8636_qsfp28_100g_lr4_dell_3mfxg.hex", 0x11, 0x07, "DELL", "3MFXG", "A0",
                      "CN03MFXG56I0001", "150618"},
        identity_case{"sff8636_qsfp28_100g_cwdm4_lumentum_lq210cr.hex", 0x11, 0x07, "LUMENTUM",
                      "LQ210CR-CAA1", "01", "FF4250500019-Q", "151202"},
        identity_case{"sff8636_qsfpplus_dac_fs_c1907253451.hex", 0x0D, 0x05, "FS", "Q28-PCxx", "A2",
                      "C1907253451-2", "190805"},
        identity_case{"sff8636_qsfp28_100g_sr4_mellanox_mt1834ft03846.hex", 0x11, 0x07, "Mellanox",
                      "MMA1B00-SS1", "A2", "MT1834FT03846", "180703"},
        identity_case{"sff8636_qsfp28_100g_psm4_innolight_tr-vc13t.hex", 0x11, 0x07, "INNOLIGHT",
                      "TR-VC13T-N00", "01", "INGAT6650079", "16051219"},
        // CMIS revision byte: major.minor in nibbles (30h = 3.0, 40h = 4.0).
        identity_case{"cmis_qsfpdd_400g_dr4_innolight_t-dp4cnh.hex", 0x18, 0x30, "INNOLIGHT",
                      "T-DP4CNH-N00", "1B", "INIBU8141290", "20190312"},
        identity_case{"cmis_qsfpdd_400g_dr4_avago_afct93drphz_fd2038fg0fk.hex", 0x18, 0x40, "AVAGO",
                      "AFCT-93DRPHZ-AZ2", "01", "FD2038FG0FK", "201007"},
        identity_case{"cmis_qsfpdd_dac_cisco_68-103205-02_sparse_apps.hex", 0x18, 0x40, "CISCO",
                      "68-103205-02", "2", "FAB261100CQ", "221018"},
        identity_case{"cmis_qsfpdd_dac_fithonteng_cu4ep54_flatmem.hex", 0x18, 0x30, "FIT HON TENG",
                      "CU4EP54-01000-EF", "A0", "N010Z8350100030", "180827"}));

// SFF-8636 technology fields, against what each module is stated to be: transmitter technology
// (SFF-8636 Table 6-18) and the extended compliance code (SFF-8024 Table 4-4: 02h 100GBASE-SR4,
// 03h 100GBASE-LR4, 06h 100G CWDM4, 07h 100G PSM4, 0Bh 100GBASE-CR4).
struct technology_case {
    const char* dump;
    std::uint8_t transmitter_technology;
    std::uint8_t link_codes;
    std::uint32_t bit_rate_mbps;
};

void PrintTo(const technology_case& c, std::ostream* os) {
    *os << c.dump;
}

class technology_test : public ::testing::TestWithParam<technology_case> {};

TEST_P(technology_test, decodes_technology_and_compliance) {
    const auto& c = GetParam();
    module_on_bus m(c.dump);
    EXPECT_EQ(m.map.get_transmitter_technology(), c.transmitter_technology);
    EXPECT_EQ(m.map.get_dev_tech() >> 4, c.transmitter_technology);
    EXPECT_EQ(m.map.get_link_codes(), c.link_codes);
    EXPECT_EQ(m.map.get_nominal_bit_rate_mbps(), c.bit_rate_mbps);
    EXPECT_FALSE(m.map.is_cmis());
    EXPECT_TRUE(m.map.get_support_paging());
    EXPECT_FALSE(m.map.is_coherent_transceiver());
}

INSTANTIATE_TEST_SUITE_P(
    module_dumps, technology_test,
    ::testing::Values(
        // 6h 1310 nm EML; byte 140 FFh, byte 222 = 103 x 250 MBd
        technology_case{"sff8636_qsfp28_100g_lr4_dell_3mfxg.hex", 0x6, 0x03, 25750},
        technology_case{"sff8636_qsfp28_100g_cwdm4_lumentum_lq210cr.hex", 0x6, 0x06, 25750},
        // 4h 1310 nm DFB, 26 Gb/s: both as the module's source states them
        technology_case{"sff8636_qsfp28_100g_ir4_fs_c1812155461.hex", 0x4, 0x03, 26000},
        technology_case{"sff8636_qsfp28_100g_sr4_finisar_ftlc9551repm.hex", 0x0, 0x02, 25750},
        technology_case{"sff8636_qsfp28_100g_psm4_innolight_tr-vc13t.hex", 0x4, 0x07, 25750},
        // Ah copper cable, unequalized: the DAC's "non-optical implementation"
        technology_case{"sff8636_qsfpplus_dac_fs_c1907253451.hex", 0xA, 0x0B, 25750}));

TEST(module_images, a_paged_read_returns_the_dump_byte_for_byte) {
    // Lower page and upper pages 00h-03h of a real module, read back in one call through the page
    // selects; the result must be the dump itself.
    const auto image = test::load_module_dump("sff8636_qsfp28_100g_sr4_mellanox_mt1834ft03846.hex");
    ASSERT_EQ(image.size(), 640u);
    module_on_bus m("sff8636_qsfp28_100g_sr4_mellanox_mt1834ft03846.hex");
    std::vector<std::uint8_t> out(image.size());
    m.device.i2c_read(0, out);
    EXPECT_EQ(out, image);
    EXPECT_EQ(m.bus->select_writes(), 4u);
}

TEST(qsfp_reg_map_sff8636, nominal_bit_rate_below_25g_uses_byte_140) {
    module_on_bus m("sff8636_qsfp28_100g_lr4_dell_3mfxg.hex");
    m.bus->set_byte(0, 140, 103);  // 10.3 Gb/s
    EXPECT_EQ(m.map.get_nominal_bit_rate_mbps(), 10300u);
}

TEST(qsfp_reg_map_sff8636, power_control_bits_of_byte_93) {
    auto bits = [](qsfp_reg_map& map) {
        return std::vector<bool>{map.get_power_override(), map.get_power_set(),
                                 map.get_high_power_class_en()};
    };
    module_on_bus dell("sff8636_qsfp28_100g_lr4_dell_3mfxg.hex");  // byte 93 = 04h
    EXPECT_EQ(bits(dell.map), (std::vector<bool>{false, false, true}));
    module_on_bus dac("sff8636_qsfpplus_dac_fs_c1907253451.hex");  // byte 93 = 03h
    EXPECT_EQ(bits(dac.map), (std::vector<bool>{true, true, false}));
    // Each setter changes its own bit only.
    dell.map.set_power_override(true);
    EXPECT_EQ(dell.bus->byte(0, 93), 0x05);
    dell.map.set_power_set(true);
    EXPECT_EQ(dell.bus->byte(0, 93), 0x07);
    dell.map.set_high_power_class_en(false);
    EXPECT_EQ(dell.bus->byte(0, 93), 0x03);
    dell.map.set_power_override(false);
    EXPECT_EQ(dell.bus->byte(0, 93), 0x02);
    EXPECT_TRUE(dell.map.get_power_set());
}

TEST(qsfp_reg_map_sff8636, flags_and_monitors_in_one_transaction) {
    module_on_bus m("sff8636_qsfp28_100g_lr4_dell_3mfxg.hex");
    m.bus->set_byte(0, 3, 0x21);     // RX LOS lane 0, TX LOS lane 1
    m.bus->set_byte(0, 5, 0x84);     // RX LOL lane 2, TX LOL lane 3
    m.map.get_flags_and_monitors();  // the first access learns the memory-map family
    m.bus->clear_log();
    const auto [flags, monitors] = m.map.get_flags_and_monitors();
    ASSERT_EQ(m.bus->count(), 1u);
    EXPECT_EQ(m.bus->log()[0].offset, 3u);
    EXPECT_EQ(m.bus->log()[0].length, 55u);
    EXPECT_EQ(flags.rx_los(), 0x01);
    EXPECT_EQ(flags.tx_los(), 0x02);
    EXPECT_EQ(flags.rx_lol(), 0x04);
    EXPECT_EQ(flags.tx_lol(), 0x08);
    // The capture's monitors: 25.18 degC, 3.2600 V, lane 1 RX 0.4856 mW, bias 71.852 mA,
    // TX 0.8077 mW.
    EXPECT_EQ(monitors.temperature(), 0x192D);
    EXPECT_EQ(monitors.supply_voltage(), 0x7F58);
    EXPECT_EQ(monitors.rx_power(0), 0x12F8);
    EXPECT_EQ(monitors.tx_bias(0), 0x8C56);
    EXPECT_EQ(monitors.tx_power(0), 0x1F8D);
    // The field accessors agree with the block.
    EXPECT_EQ(m.map.get_temperature(), monitors.temperature());
    EXPECT_EQ(m.map.get_supply_voltage(), monitors.supply_voltage());
    for (unsigned lane = 0; lane < 4; ++lane) {
        EXPECT_EQ(m.map.get_ch_rx_pwr(lane), monitors.rx_power(lane));
        EXPECT_EQ(m.map.get_ch_tx_bias(lane), monitors.tx_bias(lane));
        EXPECT_EQ(m.map.get_ch_tx_pwr(lane), monitors.tx_power(lane));
    }
    EXPECT_EQ(error_of([&] { (void)m.map.get_ch_rx_pwr(4); }), EINVAL);
}

TEST(qsfp_reg_map_sff8636, advertisement_and_thresholds) {
    module_on_bus lr4("sff8636_qsfp28_100g_lr4_dell_3mfxg.hex");
    EXPECT_EQ(lr4.map.get_free_side_wavelength(), 26200u);  // 1310 nm
    EXPECT_EQ(lr4.map.get_max_case_temperature(), 70u);
    module_on_bus dac(
        "sff8636_qsfpplus_dac_fs_c1907253451.hex");  // page 03h from 128: 50 00 F6 00 4B 00 FB 00
    EXPECT_EQ(dac.map.get_temp_threshold(threshold::high_alarm), 0x5000);  // 80 degC
    EXPECT_EQ(dac.map.get_temp_threshold(threshold::low_alarm), -0x0A00);  // -10 degC
    EXPECT_EQ(dac.map.get_temp_threshold(threshold::high_warning), 0x4B00);
    EXPECT_EQ(dac.map.get_temp_threshold(threshold::low_warning), -0x0500);
}

TEST(qsfp_reg_map_sff8636, tx_disable_and_rate_select_per_lane) {
    module_on_bus m("sff8636_qsfp28_100g_lr4_dell_3mfxg.hex");
    m.map.set_ch_tx_disable(2, true);
    EXPECT_EQ(m.bus->byte(0, 86), 0x04);
    EXPECT_TRUE(m.map.get_ch_tx_disable(2));
    EXPECT_FALSE(m.map.get_tx_laser_enabled(4));
    EXPECT_TRUE(m.map.get_tx_laser_enabled(2));  // lanes 0 and 1 only
    m.map.set_tx_disable(true);
    EXPECT_EQ(m.bus->byte(0, 86), 0x0F);
    EXPECT_TRUE(m.map.get_tx_laser_disabled(4));
    m.map.set_ch_tx_disable(0, false);
    EXPECT_FALSE(m.map.get_tx_laser_disabled(4));
    EXPECT_FALSE(m.map.get_tx_laser_disabled(1));

    m.map.set_ch_rx_rate_sel(1, 25000);
    EXPECT_EQ(m.bus->byte(0, 87), 0x08);
    m.map.set_ch_rx_rate_sel(3, 50000);
    EXPECT_EQ(m.bus->byte(0, 87), 0x88);
    m.map.set_ch_rx_rate_sel(1, 20000);  // below 25 Gb/s: the low-rate code
    EXPECT_EQ(m.bus->byte(0, 87), 0x80);
    for (unsigned lane = 0; lane < 4; ++lane)
        m.map.set_ch_tx_rate_sel(lane, 25000);
    EXPECT_EQ(m.bus->byte(0, 88), 0xAA);
    EXPECT_TRUE(m.map.get_tx_is_100g());
    EXPECT_FALSE(m.map.get_rx_is_100g());
    EXPECT_EQ(error_of([&] { m.map.set_ch_tx_rate_sel(4, 25000); }), EINVAL);
}

TEST(qsfp_reg_map_sff8636, advertisement_and_memory_model_bits) {
    // The cwdm4 module has byte 2 = 02h (paged), 195 = FAh, 221 = 18h; each bit as read, then with
    // the byte changed. Byte 2 bit 7 is CMIS's flat-memory bit, read on any module.
    struct row {
        std::uint8_t byte, changed;
        bool (qsfp_reg_map::*get)();
        bool before, after;
    };
    for (const auto& r : {row{195, 0xFB, &qsfp_reg_map::get_page_20_21_impl_195, false, true},
                          row{195, 0xDA, &qsfp_reg_map::get_free_side_rate_sel_impl, true, false},
                          row{221, 0x1C, &qsfp_reg_map::get_page_20_21_impl_221, false, true},
                          row{221, 0x1C, &qsfp_reg_map::get_free_side_appl_sel_impl, false, true},
                          row{2, 0x06, &qsfp_reg_map::get_flat_memory, false, true},
                          row{2, 0x06, &qsfp_reg_map::get_support_paging, true, false},
                          row{2, 0x82, &qsfp_reg_map::get_support_paging, true, true},
                          row{2, 0x82, &qsfp_reg_map::get_dd_support_paging, true, false}}) {
        SCOPED_TRACE(::testing::Message() << "byte " << int{r.byte} << " = " << int{r.changed});
        module_on_bus m("sff8636_qsfp28_100g_cwdm4_lumentum_lq210cr.hex");
        EXPECT_EQ((m.map.*r.get)(), r.before);
        m.bus->set_byte(0, r.byte, r.changed);
        EXPECT_EQ((m.map.*r.get)(), r.after);
    }
}

TEST(qsfp_reg_map_access, fields_of_the_other_family_are_refused) {
    module_on_bus sff("sff8636_qsfp28_100g_lr4_dell_3mfxg.hex");
    EXPECT_EQ(error_of([&] { (void)sff.map.get_media_type(); }), ENOTSUP);
    EXPECT_EQ(error_of([&] { (void)sff.map.get_banks_supported(); }), ENOTSUP);
    EXPECT_EQ(error_of([&] { (void)sff.map.get_cmis_revision_major(); }), ENOTSUP);
    module_on_bus cmis("cmis_qsfpdd_400g_dr4_avago_afct93drphz_fd2038fg0fk.hex");
    EXPECT_EQ(error_of([&] { (void)cmis.map.get_link_codes(); }), ENOTSUP);
    EXPECT_EQ(error_of([&] { (void)cmis.map.get_power_override(); }), ENOTSUP);
    EXPECT_EQ(error_of([&] { (void)cmis.map.get_nominal_bit_rate_mbps(); }), ENOTSUP);
}

TEST(qsfp_reg_map_cmis, banks_supported_from_page_01h_byte_142) {
    module_on_bus m("cmis_qsfpdd_400g_dr4_avago_afct93drphz_fd2038fg0fk.hex");
    for (const auto& [code, banks] : {std::pair{0x00, 1u}, {0x01, 2u}, {0x02, 4u}, {0xFC, 1u}}) {
        m.bus->set_byte(0x01, 142, static_cast<std::uint8_t>(code));
        EXPECT_EQ(m.map.get_banks_supported(), banks) << "code " << code;
    }
    msg_log::log_capture capture;
    m.bus->set_byte(0x01, 142, 0x03);
    EXPECT_EQ(m.map.get_banks_supported(), 1u);
    EXPECT_EQ(capture.count("reserved BanksSupported"), 1u);
}

TEST(qsfp_reg_map_cmis, coherent_detection) {
    // None of the real dumps is coherent: DR4 optics and copper.
    for (const char* dump : {"cmis_qsfpdd_400g_dr4_avago_afct93drphz_fd2038fg0fk.hex",
                             "cmis_qsfpdd_400g_dr4_innolight_t-dp4cnh.hex",
                             "cmis_qsfpdd_dac_cisco_68-103205-02_sparse_apps.hex",
                             "cmis_qsfpdd_400g_cr8_amphenol_ndyyyf.hex"}) {
        module_on_bus m(dump);
        EXPECT_FALSE(m.map.is_coherent_transceiver()) << dump;
    }

    // A 400ZR application (media code 3Eh) advertised second, after a DR4 one.
    module_on_bus zr("cmis_qsfpdd_400g_dr4_avago_afct93drphz_fd2038fg0fk.hex");
    zr.bus->set_byte(0, 91, 0x3E);
    EXPECT_TRUE(zr.map.is_coherent_transceiver());
    // ... but not after the end-of-list marker.
    zr.bus->set_byte(0, 90, 0xFF);
    EXPECT_FALSE(zr.map.is_coherent_transceiver());
    // An OpenZR+ mode in descriptor 1.
    zr.bus->set_byte(0, 87, 0x46);
    EXPECT_TRUE(zr.map.is_coherent_transceiver());
    // The same code on a copper module is a copper code, not 400ZR.
    zr.bus->set_byte(0, 85, 0x03);
    EXPECT_FALSE(zr.map.is_coherent_transceiver());

    // A tunable laser is coherent whatever the application list says.
    for (std::uint8_t tech : {0x10, 0x11}) {
        module_on_bus tunable("cmis_qsfpdd_400g_dr4_innolight_t-dp4cnh.hex");
        tunable.bus->set_byte(0, 212, tech);
        EXPECT_TRUE(tunable.map.is_coherent_transceiver()) << int{tech};
    }

    // SFF-8636 modules are never coherent here.
    module_on_bus dell("sff8636_qsfp28_100g_lr4_dell_3mfxg.hex");
    dell.bus->set_byte(0, 212, 0x10);
    EXPECT_FALSE(dell.map.is_coherent_transceiver());
}

TEST(qsfp_reg_map_cmis, coherent_applications_beyond_the_eighth) {
    // Eight non-coherent applications in the lower page, 400ZR unamplified as application 9 on
    // page 01h.
    module_on_bus m("cmis_qsfpdd_400g_dr4_avago_afct93drphz_fd2038fg0fk.hex");
    for (std::uint8_t app = 0; app < 8; ++app) {
        m.bus->set_byte(0, static_cast<std::uint8_t>(86 + 4 * app), 0x11);      // 400GAUI-8
        m.bus->set_byte(0, static_cast<std::uint8_t>(86 + 4 * app + 1), 0x1C);  // 400GBASE-DR4
    }
    m.bus->set_byte(0x01, 223, 0x11);
    m.bus->set_byte(0x01, 224, 0x3F);
    m.bus->set_byte(0x01, 227, 0xFF);
    EXPECT_TRUE(m.map.is_coherent_transceiver());

    m.bus->set_byte(0x01, 224, 0x1C);
    EXPECT_FALSE(m.map.is_coherent_transceiver());

    // A flat-memory module has no page 01h: it is not read.
    m.bus->set_byte(0x01, 224, 0x3F);
    m.bus->set_byte(0, 2, 0x80);
    auto page_01_selected = [&] {
        for (const auto& t : m.bus->log())
            if (t.write && t.offset == 127 && t.data == std::vector<std::uint8_t>{0x01})
                return true;
        return false;
    };
    m.bus->clear_log();
    EXPECT_FALSE(m.map.is_coherent_transceiver());
    EXPECT_FALSE(page_01_selected());

    // Nor when the lower-page list already ended.
    m.bus->set_byte(0, 2, 0x00);
    m.bus->set_byte(0, 90, 0xFF);
    m.bus->clear_log();
    EXPECT_FALSE(m.map.is_coherent_transceiver());
    EXPECT_FALSE(page_01_selected());
}

TEST(qsfp_reg_map_access, identity_is_cached_until_forgotten) {
    module_on_bus m("cmis_qsfpdd_400g_dr4_avago_afct93drphz_fd2038fg0fk.hex");
    EXPECT_EQ(m.map.get_vendor_name(), "AVAGO");
    m.bus->clear_log();
    EXPECT_EQ(m.map.get_part_number(), "AFCT-93DRPHZ-AZ2");
    EXPECT_EQ(m.bus->count(), 1u);  // no identifier read, no page select: one transfer

    // Another module in the cage: the old family sticks until the map is told.
    m.bus->load_flat(test::load_module_dump("sff8636_qsfp28_100g_lr4_dell_3mfxg.hex"));
    m.map.forget_identity();
    EXPECT_EQ(m.map.get_part_number(), "3MFXG");
}

TEST(qsfp_reg_map_access, every_accessor_throws_on_a_bus_failure) {
    module_on_bus m("sff8636_qsfp28_100g_lr4_dell_3mfxg.hex");
    m.bus->fail_next(ENXIO, 0);
    for (const auto& access : std::initializer_list<std::function<void()>>{
             [&] { (void)m.map.get_identifier(); }, [&] { (void)m.map.get_vendor_name(); },
             [&] { (void)m.map.get_link_codes(); }, [&] { (void)m.map.get_power_override(); },
             [&] { m.map.set_power_override(true); }, [&] { (void)m.map.read_register(3); },
             [&] { (void)m.map.is_coherent_transceiver(); }})
        EXPECT_EQ(error_of(access), ENXIO);
    m.bus->stop_failing();
    EXPECT_EQ(m.map.get_vendor_name(), "DELL");
}

TEST(qsfp_reg_map_access, a_failed_read_makes_the_identity_read_again) {
    module_on_bus m("sff8636_qsfp28_100g_lr4_dell_3mfxg.hex");
    EXPECT_EQ(m.map.get_vendor_name(), "DELL");
    m.bus->fail_next(EIO);
    EXPECT_EQ(error_of([&] { (void)m.map.get_part_number(); }), EIO);
    // A CMIS module answers next in the same cage.
    m.bus->load_flat(
        test::load_module_dump("cmis_qsfpdd_400g_dr4_avago_afct93drphz_fd2038fg0fk.hex"));
    EXPECT_EQ(m.map.get_part_number(), "AFCT-93DRPHZ-AZ2");
}

TEST(qsfp_reg_map_access, masked_register_writes) {
    module_on_bus m("sff8636_qsfp28_100g_lr4_dell_3mfxg.hex");
    m.bus->set_byte(0x03, 242, 0xF0);
    m.map.write_register(flat(0x03, 242), 0x05, 0x0F);
    EXPECT_EQ(m.bus->byte(0x03, 242), 0xF5);
    EXPECT_EQ(m.map.read_register(flat(0x03, 242)), 0xF5);
    m.map.write_register(flat(0x03, 242), 0x00, 0x80);
    EXPECT_EQ(m.bus->byte(0x03, 242), 0x75);

    // A full mask writes without reading first; an empty mask touches nothing.
    m.bus->clear_log();
    m.map.write_register(flat(0x03, 242), 0x12);
    for (const auto& t : m.bus->log())
        EXPECT_TRUE(t.write);
    EXPECT_EQ(m.bus->byte(0x03, 242), 0x12);
    m.bus->clear_log();
    m.map.write_register(flat(0x03, 242), 0xFF, 0x00);
    EXPECT_EQ(m.bus->count(), 0u);
}

TEST(qsfp_reg_map_access, field_kinds) {
    module_on_bus m("sff8636_qsfp28_100g_lr4_dell_3mfxg.hex");
    m.bus->set_byte(0x03, 128, 0xFF);
    m.bus->set_byte(0x03, 129, 0x38);
    const field_def word = fields::u16("word", 0x03, 128, "test");
    const field_def signed_word = fields::s16("signed", 0x03, 128, "test");
    const field_def nibble = fields::bits("nibble", 0x03, 129, 0x30, "test");
    const field_def signed_byte = fields::u8("byte", 0x03, 128, "test");
    EXPECT_EQ(m.map.read_u16(word), 0xFF38);
    EXPECT_EQ(m.map.read_s16(signed_word), -200);
    EXPECT_EQ(m.map.read_bits(nibble), 3);
    EXPECT_EQ(m.map.read_s8(signed_byte), -1);
    m.map.write_bits(nibble, 1);
    EXPECT_EQ(m.bus->byte(0x03, 129), 0x18);
}

TEST(qsfp_reg_map_access, text_trimming_rules) {
    using b = std::vector<std::uint8_t>;
    EXPECT_EQ(qsfp_reg_map::trim_text(b{'A', 'B', ' ', ' '}), "AB");
    EXPECT_EQ(qsfp_reg_map::trim_text(b{' ', 'A', ' ', 'B', ' '}), "A B");
    EXPECT_EQ(qsfp_reg_map::trim_text(b{'A', 0x00, 'B'}), "A");
    EXPECT_EQ(qsfp_reg_map::trim_text(b{'A', 0xFF, 0xFF}), "A");
    EXPECT_EQ(qsfp_reg_map::trim_text(b{'A', 0x01, 'B'}), "A?B");
    EXPECT_EQ(qsfp_reg_map::trim_text(b{0xFF, 0xFF}), "");
    EXPECT_EQ(qsfp_reg_map::trim_text(b{}), "");
}

// The tables themselves: every field fits its bytes, names are unique, and each cites a standard.
template <std::size_t N>
void check_table(const std::array<field_def, N>& table, const char* family) {
    std::set<std::string_view> names;
    for (const auto& f : table) {
        SCOPED_TRACE(std::string(family) + " " + std::string(f.name));
        EXPECT_TRUE(names.insert(f.name).second) << "duplicate name";
        EXPECT_GE(f.length, 1);
        EXPECT_LE(f.byte + f.length, 256) << "runs past the page";
        if (f.byte < 128) {
            EXPECT_LE(f.byte + f.length, 128) << "runs from lower into upper page";
        }
        EXPECT_NE(f.mask, 0);
        if (f.kind == field_kind::flag) {
            EXPECT_EQ(f.mask & (f.mask - 1), 0) << "flag of several bits";
        }
        // The DSP pages are the layout of the modules we drive, not of a standard.
        EXPECT_TRUE(f.cite.starts_with("SFF-8636") || f.cite.starts_with("CMIS") ||
                    f.cite.starts_with("DSP page"));
    }
}

TEST(register_fields, tables_are_consistent) {
    check_table(fields::sff8636, "SFF-8636");
    check_table(fields::cmis, "CMIS");
}

}  // namespace
}  // namespace qsfpd::cage
