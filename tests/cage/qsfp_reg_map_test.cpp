#include "qsfp_reg_map.hpp"

#include <gtest/gtest.h>

#include "errno_of.hpp"

#include <cstdio>
#include <functional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "fake_transport.hpp"
#include "log_capture.hpp"
#include "module_dump.hpp"

namespace qsfpd::cage {
namespace {

using qsfpd::test::error_of;
using test::fake_transport;
using bytes = std::vector<std::uint8_t>;

// Real modules of testdata/module-dumps (name without ".hex").
constexpr const char* dell = "sff8636_qsfp28_100g_lr4_dell_3mfxg";
constexpr const char* cwdm4 = "sff8636_qsfp28_100g_cwdm4_lumentum_lq210cr";
constexpr const char* dac = "sff8636_qsfpplus_dac_fs_c1907253451";
constexpr const char* avago = "cmis_qsfpdd_400g_dr4_avago_afct93drphz_fd2038fg0fk";
constexpr const char* innolight = "cmis_qsfpdd_400g_dr4_innolight_t-dp4cnh";

struct module_on_bus {
    explicit module_on_bus(const std::string& dump) { load(dump); }
    void load(const std::string& dump) { bus->load_flat(test::load_module_dump(dump + ".hex")); }
    std::shared_ptr<fake_transport> bus = std::make_shared<fake_transport>();
    qsfp_device device{"cage", bus};
    qsfp_reg_map map{device};
};

// What the map reads of a module's identity: identifier and revision compliance (hex),
// vendor|part|revision|serial|date, and for SFF-8636 the transmitter technology, extended
// compliance and nominal bit rate in Mb/s.
std::string identity(qsfp_reg_map& map) {
    char text[32];
    std::snprintf(text, sizeof text, "%02x %02x ", map.get_identifier(),
                  map.get_status_revision_compliance());
    std::string s = text + map.get_vendor_name() + "|" + map.get_part_number() + "|" +
                    map.get_revision() + "|" + map.get_serial_number() + "|" + map.get_date_code();
    if (map.is_cmis()) return s;
    std::snprintf(text, sizeof text, " %x %02x %u", map.get_transmitter_technology(),
                  map.get_link_codes(), map.get_nominal_bit_rate_mbps());
    return s + text;
}

TEST(qsfp_reg_map, reads_the_golden_identities) {
    // Identifier and revision compliance as the module declares them: SFF-8636 07h (rev 2.5-2.7)
    // or 05h (rev 1.5), CMIS major.minor in nibbles. Vendor, part number, revision, serial number
    // and date as the dumps' sources state them (index.json). Transmitter technology (byte 147
    // bits 7-4: 0 850 nm VCSEL, 4 1310 nm DFB, 6 1310 nm EML, A copper unequalized), extended
    // compliance (192: 02h 100GBASE-SR4, 03h -LR4, 06h CWDM4, 07h PSM4, 0Bh -CR4) and bit rate:
    // byte 140 FFh, so byte 222 in 250 MBd (103 x 250).
    for (const auto& [dump, expected] : std::initializer_list<std::pair<const char*, const char*>>{
             {dell, "11 07 DELL|3MFXG|A0|CN03MFXG56I0001|150618 6 03 25750"},
             {cwdm4, "11 07 LUMENTUM|LQ210CR-CAA1|01|FF4250500019-Q|151202 6 06 25750"},
             {dac, "0d 05 FS|Q28-PCxx|A2|C1907253451-2|190805 a 0b 25750"},
             {"sff8636_qsfp28_100g_sr4_mellanox_mt1834ft03846",
              "11 07 Mellanox|MMA1B00-SS1|A2|MT1834FT03846|180703 0 02 25750"},
             {"sff8636_qsfp28_100g_sr4_finisar_ftlc9551repm",
              "11 07 FINISAR CORP|FTLC9551REPM|A0|XU90TRP|151006 0 02 25750"},
             {"sff8636_qsfp28_100g_psm4_innolight_tr-vc13t",
              "11 07 INNOLIGHT|TR-VC13T-N00|01|INGAT6650079|16051219 4 07 25750"},
             {"sff8636_qsfp28_100g_ir4_fs_c1812155461",
              "11 07 FS|QSFP28-IR4-100G|A1|C1812155461|190110 4 03 26000"},
             {innolight, "18 30 INNOLIGHT|T-DP4CNH-N00|1B|INIBU8141290|20190312"},
             {avago, "18 40 AVAGO|AFCT-93DRPHZ-AZ2|01|FD2038FG0FK|201007"},
             {"cmis_qsfpdd_dac_cisco_68-103205-02_sparse_apps",
              "18 40 CISCO|68-103205-02|2|FAB261100CQ|221018"},
             {"cmis_qsfpdd_dac_fithonteng_cu4ep54_flatmem",
              "18 30 FIT HON TENG|CU4EP54-01000-EF|A0|N010Z8350100030|180827"}}) {
        module_on_bus m(dump);
        EXPECT_EQ(identity(m.map), expected) << dump;
    }
    // Below 25 Gb/s byte 140 holds the rate: 10.3 Gb/s.
    module_on_bus m(dell);
    m.bus->set_byte(0, 140, 103);
    EXPECT_EQ(m.map.get_nominal_bit_rate_mbps(), 10300u);
}

TEST(qsfp_reg_map_sff8636, power_tx_disable_and_rate_select_setters_change_their_own_bits) {
    module_on_bus m(dell);  // byte 93 = 04h
    m.map.set_power_override(true);
    m.map.set_power_set(true);
    m.map.set_high_power_class_en(false);
    m.map.set_power_override(false);
    EXPECT_EQ(m.bus->trace(), "r0#1 r93#1 w93:05 r93#1 w93:07 r93#1 w93:03 r93#1 w93:02");
    // TX disable and rate select per lane.
    m.map.set_ch_tx_disable(2, true);
    m.map.set_tx_disable(true);
    m.map.set_ch_tx_disable(0, false);
    m.map.set_ch_rx_rate_sel(1, 25000);
    m.map.set_ch_rx_rate_sel(3, 50000);
    m.map.set_ch_rx_rate_sel(1, 20000);  // below 25 Gb/s: the low-rate code
    for (unsigned lane = 0; lane < 4; ++lane)
        m.map.set_ch_tx_rate_sel(lane, 25000);
    EXPECT_EQ(m.bus->trace(),
              "r86#1 w86:04 r86#1 w86:0f r86#1 w86:0e r87#1 w87:08 r87#1 w87:88 r87#1 w87:80 "
              "r88#1 w88:02 r88#1 w88:0a r88#1 w88:2a r88#1 w88:aa");
    // Power set, no override; lane 0 on, lanes 1-3 off; TX at 100G, RX not.
    EXPECT_EQ((std::vector<bool>{m.map.get_power_set(), m.map.get_power_override(),
                                 m.map.get_ch_tx_disable(0), m.map.get_ch_tx_disable(2),
                                 m.map.get_tx_laser_enabled(1), m.map.get_tx_laser_enabled(2),
                                 m.map.get_tx_laser_disabled(4), m.map.get_tx_is_100g(),
                                 m.map.get_rx_is_100g()}),
              (std::vector<bool>{true, false, false, true, true, false, false, true, false}));
    m.bus->set_byte(0, 86, 0x03);
    EXPECT_TRUE(m.map.get_tx_laser_disabled(2));
    EXPECT_FALSE(m.map.get_tx_laser_disabled(3));
    EXPECT_EQ(error_of([&] { m.map.set_ch_tx_rate_sel(4, 25000); }), EINVAL);
}

TEST(qsfp_reg_map_sff8636, flags_and_monitors_in_one_transaction_and_thresholds) {
    module_on_bus m(dell);
    m.bus->set_byte(0, 3, 0x21);     // RX LOS lane 0, TX LOS lane 1
    m.bus->set_byte(0, 5, 0x84);     // RX LOL lane 2, TX LOL lane 3
    m.map.get_flags_and_monitors();  // the first access learns the memory-map family
    m.bus->trace();
    const auto [flags, monitors] = m.map.get_flags_and_monitors();
    EXPECT_EQ(m.bus->trace(), "r3#55");
    EXPECT_EQ((bytes{flags.rx_los(), flags.tx_los(), flags.rx_lol(), flags.tx_lol()}),
              (bytes{0x01, 0x02, 0x04, 0x08}));
    // The capture's monitors: 25.18 degC, 3.2600 V, lane 1 RX 0.4856 mW, bias 71.852 mA,
    // TX 0.8077 mW.
    EXPECT_EQ((std::vector<int>{monitors.temperature(), monitors.supply_voltage(),
                                monitors.rx_power(0), monitors.tx_bias(0), monitors.tx_power(0)}),
              (std::vector<int>{0x192D, 0x7F58, 0x12F8, 0x8C56, 0x1F8D}));
    // The field accessors agree with the block, lane 4 at its stride.
    EXPECT_EQ(
        (std::vector<int>{m.map.get_temperature(), m.map.get_supply_voltage(),
                          m.map.get_ch_rx_pwr(3), m.map.get_ch_tx_bias(3), m.map.get_ch_tx_pwr(3)}),
        (std::vector<int>{monitors.temperature(), monitors.supply_voltage(), monitors.rx_power(3),
                          monitors.tx_bias(3), monitors.tx_power(3)}));
    EXPECT_EQ(error_of([&] { (void)m.map.get_ch_rx_pwr(4); }), EINVAL);
    // Thresholds are signed where the value is.
    module_on_bus d(dac);  // page 03h from 128: 50 00 F6 00 4B 00 FB 00
    EXPECT_EQ(d.map.get_temp_threshold(threshold::high_alarm), 0x5000);  // 80 degC
    EXPECT_EQ(d.map.get_temp_threshold(threshold::low_alarm), -0x0A00);  // -10 degC
    EXPECT_EQ(d.map.get_temp_threshold(threshold::high_warning), 0x4B00);
    EXPECT_EQ(d.map.get_temp_threshold(threshold::low_warning), -0x0500);
}

TEST(qsfp_reg_map, memory_model_bits_banks_and_fields_of_the_other_family_refused) {
    module_on_bus m(cwdm4);       // byte 2 = 02h: paged
    m.bus->set_byte(0, 2, 0x82);  // CMIS's flat-memory bit, read on any module for the DD form
    EXPECT_EQ(std::pair(m.map.get_support_paging(), m.map.get_dd_support_paging()),
              std::pair(true, false));
    m.bus->set_byte(0, 2, 0x06);  // SFF-8636's
    EXPECT_EQ(std::pair(m.map.get_support_paging(), m.map.get_dd_support_paging()),
              std::pair(false, true));
    // The CMIS flat-memory DAC and the CR8 (byte 2 bit 7 set, as their sources say): one bank.
    for (const char* dump :
         {"cmis_qsfpdd_dac_fithonteng_cu4ep54_flatmem", "cmis_qsfpdd_400g_cr8_amphenol_ndyyyf"}) {
        module_on_bus flat(dump);
        EXPECT_EQ(std::tuple(flat.map.get_flat_memory(), flat.map.get_banks_supported(),
                             flat.map.get_media_type()),
                  std::tuple(true, 1u, 0x03))  // passive copper
            << dump;
    }
    // Fields of the other family are refused.
    module_on_bus sff(dell);
    EXPECT_EQ(error_of([&] { (void)sff.map.get_media_type(); }), ENOTSUP);
    EXPECT_EQ(error_of([&] { (void)sff.map.get_banks_supported(); }), ENOTSUP);
    EXPECT_EQ(error_of([&] { (void)sff.map.get_cmis_revision_major(); }), ENOTSUP);
    module_on_bus cmis(avago);
    EXPECT_TRUE(cmis.map.is_cmis());
    EXPECT_EQ(cmis.map.get_cmis_revision_major(), 4);
    EXPECT_EQ(cmis.map.get_cmis_revision_minor(), 0);
    EXPECT_EQ(error_of([&] { (void)cmis.map.get_link_codes(); }), ENOTSUP);
    EXPECT_EQ(error_of([&] { (void)cmis.map.get_power_override(); }), ENOTSUP);
    EXPECT_EQ(error_of([&] { (void)cmis.map.get_nominal_bit_rate_mbps(); }), ENOTSUP);
    // CMIS banks from page 01h byte 142.
    for (const auto& [code, banks] : {std::pair{0x00, 1u}, {0x01, 2u}, {0x02, 4u}, {0xFC, 1u}}) {
        cmis.bus->set_byte(0x01, 142, static_cast<std::uint8_t>(code));
        EXPECT_EQ(cmis.map.get_banks_supported(), banks) << "code " << code;
    }
    msg_log::log_capture capture;
    cmis.bus->set_byte(0x01, 142, 0x03);
    EXPECT_EQ(cmis.map.get_banks_supported(), 1u);
    EXPECT_EQ(capture.count("reserved BanksSupported"), 1u);
}

TEST(qsfp_reg_map_cmis, coherent_detection_on_the_lower_page_list_page_01h_and_the_laser) {
    // None of the real dumps is coherent: DR4 optics and copper.
    for (const char* dump : {avago, innolight, "cmis_qsfpdd_dac_cisco_68-103205-02_sparse_apps",
                             "cmis_qsfpdd_400g_cr8_amphenol_ndyyyf"})
        EXPECT_FALSE(module_on_bus(dump).map.is_coherent_transceiver()) << dump;
    // In turn: a 400ZR application (media code 3Eh) advertised second, after a DR4 one; the
    // end-of-list marker before it; an OpenZR+ mode in descriptor 1; a copper module, where the
    // same code is a copper code, not 400ZR.
    module_on_bus zr(avago);
    for (const auto& [byte, value, coherent] :
         {std::tuple{91, 0x3E, true}, {90, 0xFF, false}, {87, 0x46, true}, {85, 0x03, false}}) {
        zr.bus->set_byte(0, static_cast<std::uint8_t>(byte), static_cast<std::uint8_t>(value));
        EXPECT_EQ(zr.map.is_coherent_transceiver(), coherent) << byte;
    }
    // A tunable laser is coherent whatever the application list says; never on SFF-8636 here.
    for (std::uint8_t tech : {0x10, 0x11}) {
        module_on_bus tunable(innolight), sff(dell);
        tunable.bus->set_byte(0, 212, tech);
        sff.bus->set_byte(0, 212, tech);
        EXPECT_TRUE(tunable.map.is_coherent_transceiver()) << int{tech};
        EXPECT_FALSE(sff.map.is_coherent_transceiver()) << int{tech};
    }
    // Eight non-coherent applications in the lower page, 400ZR unamplified as application 9 on
    // page 01h.
    module_on_bus m(avago);
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
    // Page 01h is not read on a flat-memory module, nor when the lower-page list already ended.
    m.bus->set_byte(0x01, 224, 0x3F);
    for (const auto& [memory_model, app_2] : {std::pair{0x80, 0x11}, {0x00, 0xFF}}) {
        m.bus->set_byte(0, 2, static_cast<std::uint8_t>(memory_model));
        m.bus->set_byte(0, 90, static_cast<std::uint8_t>(app_2));
        m.bus->trace();
        EXPECT_FALSE(m.map.is_coherent_transceiver());
        EXPECT_EQ(m.bus->trace().find("w127:01"), std::string::npos);
    }
}

TEST(qsfp_reg_map_cmis, application_advertisement_of_the_real_dr4_and_its_end) {
    module_on_bus m(avago);
    // Descriptor 2 as dumped: 100GAUI-2 (0Dh) / 100G-FR (15h), 2 host lanes, 1 media lane, may
    // start on host lanes 1, 3, 5, 7; its media lanes from page 01h byte 177.
    m.bus->set_byte(0x01, 177, 0x0F);
    const auto app = m.map.get_appcode_advertisement(2);
    EXPECT_EQ(std::tuple(app.host_interface_id, app.media_interface_id, app.host_lane_count,
                         app.media_lane_count, app.host_lane_assignment_options,
                         app.media_lane_assignment_options),
              std::tuple(0x0D, 0x15, 2, 1, 0x55, 0x0F));
    EXPECT_EQ(m.map.get_total_application_code_advertisement(), 2u);
    // A full lower page continues on page 01h; a flat module has no applications beyond 8.
    for (std::uint8_t at = 86; at < 118; at += 4)
        m.bus->set_byte(0, at, 0x11);
    m.bus->set_byte(0x01, 223, 0x11);
    m.bus->set_byte(0x01, 227, 0xFF);
    EXPECT_EQ(m.map.get_total_application_code_advertisement(), 9u);
    m.bus->set_byte(0, 2, 0x80);
    EXPECT_EQ(m.map.get_total_application_code_advertisement(), 8u);
    EXPECT_EQ(m.map.get_appcode_advertisement(9).host_interface_id, 0xFF);
}

TEST(qsfp_reg_map_cmis, application_select_stages_the_data_paths_the_service_asks_for) {
    // App 2 of the DR4: two host lanes per data path, starting on lanes 1, 3, 5, 7.
    struct row {
        const char* service;
        std::vector<std::uint8_t> staged;
    };
    for (const auto& [service, staged] :
         {row{"1x100GbE-1x100GbE", {0x20, 0x20, 0, 0, 0, 0, 0, 0}},
          row{"3x100GbE-3x100GbE", {0x20, 0x20, 0x24, 0x24, 0x28, 0x28, 0, 0}},
          row{"4x100GbE-4x100GbE", {0x20, 0x20, 0x24, 0x24, 0x28, 0x28, 0x2C, 0x2C}}}) {
        module_on_bus m(avago);
        m.map.set_application_code(2, service);
        std::vector<std::uint8_t> got;
        for (std::uint8_t lane = 0; lane < 8; ++lane)
            got.push_back(m.bus->byte(0x10, static_cast<std::uint8_t>(145 + lane)));
        EXPECT_EQ(got, staged) << service;
        EXPECT_EQ(m.bus->byte(0x10, 143), 0xFF) << service;  // applied on every lane
    }
    // An application that is not advertised is refused before anything is written.
    module_on_bus m(avago);
    m.bus->trace();
    EXPECT_EQ(error_of([&] { m.map.set_application_code(3, "400G"); }), EINVAL);
    EXPECT_EQ(m.bus->trace().find('w'), std::string::npos);
}

TEST(qsfp_reg_map_cmis, lane_controls_nibbles_and_the_flat_memory_guard) {
    module_on_bus m(avago);
    m.map.set_dd_lane_tx_disable(2, true);
    EXPECT_EQ(m.bus->byte(0x10, 130), 0x04);
    EXPECT_EQ(std::pair(m.map.get_dd_tx_laser_enabled(4), m.map.get_dd_tx_laser_disabled(4)),
              std::pair(false, false));
    m.map.set_dd_tx_disable(true);
    EXPECT_TRUE(m.map.get_dd_tx_laser_disabled(4));
    m.map.set_dd_rx_output_pre_cursor_control(5);
    EXPECT_EQ(m.bus->byte(0x10, 162), 0x55);
    EXPECT_EQ(m.bus->byte(0x10, 144), 0xFF);  // ApplyImmediate
    m.bus->set_byte(0x11, 224, 0x73);         // active pre-cursor, lanes 3 (low) and 4 (high)
    EXPECT_EQ(std::pair(m.map.get_dd_lane_rx_output_pre_cursor_control(2),
                        m.map.get_dd_lane_rx_output_pre_cursor_control(3)),
              std::pair(3u, 7u));

    // A flat-memory module ignores the page select: an upper-page field would land on page 00h.
    module_on_bus flat("cmis_qsfpdd_dac_fithonteng_cu4ep54_flatmem");
    flat.bus->trace();
    EXPECT_EQ(error_of([&] { flat.map.set_dd_tx_disable(true); }), ENOTSUP);
    EXPECT_EQ(error_of([&] { (void)flat.map.get_dd_active_cntl_set_app(); }), ENOTSUP);
    EXPECT_EQ(flat.bus->trace().find('w'), std::string::npos);
    EXPECT_FALSE(flat.map.get_dd_rx_output_amplitude_supported());
}

TEST(qsfp_reg_map_cmis, current_bitrate_from_an_interface_name) {
    for (const auto& [name, rate] : {std::pair{"400GBASE-DR4 (Clause 124)", 400u},
                                     {"100G-FR/100GBASE-FR1 (Clause 140)", 100u},
                                     {"ZR400-OFEC-16QAM", 400u},
                                     {"400ZR, DWDM, amplified", 400u},
                                     {"OTL4.4", 0u},
                                     {"Copper cable", 0u},
                                     {"", 0u}})
        EXPECT_EQ(qsfp_reg_map::get_current_bitrate(name), rate) << name;
}

TEST(qsfp_reg_map, identity_is_cached_until_forgotten_or_a_read_fails_and_failures_throw) {
    module_on_bus m(avago);
    EXPECT_EQ(m.map.get_vendor_name(), "AVAGO");
    m.bus->trace();
    EXPECT_EQ(m.map.get_part_number(), "AFCT-93DRPHZ-AZ2");
    EXPECT_EQ(m.bus->trace(), "r148#16");  // no identifier read, no page select
    // Another module in the cage: the old family sticks until the map is told.
    m.load(dell);
    m.map.forget_identity();
    EXPECT_EQ(m.map.get_part_number(), "3MFXG");
    // A failed read forgets it too: a CMIS module may answer next in the same cage.
    m.bus->fail_next(EIO);
    EXPECT_EQ(error_of([&] { (void)m.map.get_part_number(); }), EIO);
    m.load(avago);
    EXPECT_EQ(m.map.get_part_number(), "AFCT-93DRPHZ-AZ2");
    // Every accessor throws on a bus failure.
    m.load(dell);
    m.bus->fail_next(ENXIO, 0);
    for (const auto& access : std::initializer_list<std::function<void()>>{
             [&] { (void)m.map.get_identifier(); }, [&] { (void)m.map.get_vendor_name(); },
             [&] { (void)m.map.get_link_codes(); }, [&] { (void)m.map.get_power_override(); },
             [&] { m.map.set_power_override(true); }, [&] { (void)m.map.read_register(3); },
             [&] { (void)m.map.is_coherent_transceiver(); }})
        EXPECT_EQ(error_of(access), ENXIO);
    m.bus->fail_next(0, 0);
    EXPECT_EQ(m.map.get_vendor_name(), "DELL");
}

TEST(qsfp_reg_map, masked_register_writes_field_kinds_and_text_trimming) {
    module_on_bus m(dell);
    m.bus->set_byte(0x03, 242, 0xF0);
    m.map.write_register(flat(0x03, 242), 0x05, 0x0F);
    EXPECT_EQ(m.map.read_register(flat(0x03, 242)), 0xF5);
    m.map.write_register(flat(0x03, 242), 0x00, 0x80);
    EXPECT_EQ(m.bus->byte(0x03, 242), 0x75);
    // A full mask writes without reading first; an empty mask touches nothing.
    m.bus->trace();
    m.map.write_register(flat(0x03, 242), 0x12);
    m.map.write_register(flat(0x03, 242), 0xFF, 0x00);
    EXPECT_EQ(m.bus->trace(), "w242:12");
    // The field kinds.
    m.bus->set_byte(0x03, 128, 0xFF);
    m.bus->set_byte(0x03, 129, 0x38);
    const field_def nibble = fields::bits("nibble", 0x03, 129, 0x30, "test");
    EXPECT_EQ(m.map.read_u16(fields::u16("word", 0x03, 128, "test")), 0xFF38);
    EXPECT_EQ(m.map.read_s16(fields::s16("signed", 0x03, 128, "test")), -200);
    EXPECT_EQ(m.map.read_s8(fields::u8("byte", 0x03, 128, "test")), -1);
    EXPECT_EQ(m.map.read_bits(nibble), 3);
    m.map.write_bits(nibble, 1);
    EXPECT_EQ(m.bus->byte(0x03, 129), 0x18);
    // Text trimming.
    EXPECT_EQ(qsfp_reg_map::trim_text(bytes{'A', 'B', ' ', ' '}), "AB");
    EXPECT_EQ(qsfp_reg_map::trim_text(bytes{' ', 'A', ' ', 'B', ' '}), "A B");
    EXPECT_EQ(qsfp_reg_map::trim_text(bytes{'A', 0x00, 'B'}), "A");
    EXPECT_EQ(qsfp_reg_map::trim_text(bytes{'A', 0xFF, 0xFF}), "A");
    EXPECT_EQ(qsfp_reg_map::trim_text(bytes{'A', 0x01, 'B'}), "A?B");
    EXPECT_EQ(qsfp_reg_map::trim_text(bytes{0xFF, 0xFF}), "");
    EXPECT_EQ(qsfp_reg_map::trim_text(bytes{}), "");
}

// The tables themselves: every field fits its bytes, names are unique, and each cites a standard.
TEST(register_fields, tables_are_consistent) {
    for (const auto& [table, family] :
         {std::pair{std::span<const field_def>(fields::sff8636), "SFF-8636"},
          {std::span<const field_def>(fields::cmis), "CMIS"}}) {
        std::set<std::string_view> names;
        for (const auto& f : table) {
            SCOPED_TRACE(std::string(family) + " " + std::string(f.name));
            EXPECT_TRUE(names.insert(f.name).second) << "duplicate name";
            EXPECT_GE(f.length, 1);
            EXPECT_LE(f.byte + f.length, f.byte < 128 ? 128 : 256) << "runs past its page";
            EXPECT_NE(f.mask, 0);
            EXPECT_TRUE(f.kind != field_kind::flag || (f.mask & (f.mask - 1)) == 0) << "flag bits";
            // The DSP and vendor pages are the layout of the modules we drive, not of a standard.
            EXPECT_TRUE(f.cite.starts_with("SFF-8636") || f.cite.starts_with("CMIS") ||
                        f.cite.starts_with("C-CMIS") || f.cite.starts_with("DSP page") ||
                        f.cite.starts_with("vendor page"));
        }
    }
}

}  // namespace
}  // namespace qsfpd::cage
