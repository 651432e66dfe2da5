#include "qsfp_device.hpp"

#include <gtest/gtest.h>

#include "errno_of.hpp"

#include <array>
#include <functional>
#include <thread>
#include <tuple>
#include <vector>

#include "converter_sfp_device.hpp"
#include "fake_transport.hpp"
#include "log_capture.hpp"
#include "module_dump.hpp"
#include "msg_log.hpp"
#include "sfp_reg_map.hpp"

namespace qsfpd::cage {
namespace {

using qsfpd::test::error_of;
using test::fake_transport;

class qsfp_device_test : public ::testing::Test {
  protected:
    qsfp_device_test() {
        // Every page's upper bytes hold (page, byte) markers so a read shows where it came from.
        for (unsigned page : {0x00u, 0x01u, 0x02u, 0x03u, 0x11u, 0x20u})
            for (unsigned b = 128; b < 256; ++b)
                bus->set_byte(static_cast<std::uint8_t>(page), static_cast<std::uint8_t>(b),
                              static_cast<std::uint8_t>(page * 16 + (b & 0x0F)));
        bus->set_byte(0, 0, 0x11);  // QSFP28, SFF-8636
    }
    // Reads page 03h byte 128 through `d`; true when that took a page select.
    bool selects_page_3(qsfp_device& d) {
        bus->trace();
        EXPECT_EQ(d.read_byte(flat(0x03, 128)), 0x30);
        return bus->trace() == "w127:03 r128#1";
    }

    std::shared_ptr<fake_transport> bus = std::make_shared<fake_transport>();
    qsfp_device device{"cage0", bus};
};

TEST_F(qsfp_device_test, pages_are_selected_when_changed_or_lost_and_transfers_split_at_page_ends) {
    bus->set_byte(0, 22, 0x19);
    EXPECT_EQ(device.read_byte(22), 0x19);  // lower page: no select
    std::array<std::uint8_t, 4> out{};
    device.i2c_read(flat(0x03, 130), out);
    EXPECT_EQ(out, (std::array<std::uint8_t, 4>{0x32, 0x33, 0x34, 0x35}));
    device.i2c_read(flat(0x03, 200), out);
    device.i2c_read(flat(0x01, 254), out);
    EXPECT_EQ(out, (std::array<std::uint8_t, 4>{0x1E, 0x1F, 0x20, 0x21}));
    device.i2c_read(126, out);  // the lower page's last bytes, then page 00h
    EXPECT_EQ(out, (std::array<std::uint8_t, 4>{0x00, 0x02, 0x00, 0x01}));
    device.i2c_write(flat(0x02, 250), std::array<std::uint8_t, 2>{0xAA, 0xBB});
    device.write_byte(flat(0x00, 93), 0x05);
    EXPECT_EQ(bus->trace(),
              "r22#1 w127:03 r130#4 r200#4 w127:01 r254#2 w127:02 r128#2 r126#2 w127:00 r128#2 "
              "w127:02 w250:aabb w93:05");
    // Nothing past page FFh byte 255 reaches the bus.
    EXPECT_EQ(error_of([&] { device.i2c_read(flat_end - 3, out); }), EINVAL);
    EXPECT_EQ(error_of([&] { device.i2c_read(flat_end, out); }), EINVAL);
    EXPECT_EQ(bus->trace(), "");
    // The page cache goes whenever the module may have lost its select.
    EXPECT_TRUE(selects_page_3(device));
    device.invalidate_cache();
    EXPECT_TRUE(selects_page_3(device));
    device.write_byte(127, 0x01);  // someone selects page 01h by hand
    EXPECT_TRUE(selects_page_3(device));
    for (unsigned l : {line::reset, line::lpmode}) {
        device.pin_set(l, true);
        EXPECT_TRUE(bus->pins[l]);
        EXPECT_TRUE(selects_page_3(device)) << "line " << l;
    }
    device.pin_set(line::tx_led_green, true);  // an LED does not touch the module
    EXPECT_TRUE(device.pin_get(line::tx_led_green));
    EXPECT_FALSE(selects_page_3(device));
    // An empty cage: whatever is inserted next starts at its own page.
    bus->present = false;
    EXPECT_FALSE(device.module_present());
    bus->present = true;
    EXPECT_TRUE(selects_page_3(device));
    // A failed transfer, whose errno reaches the caller.
    bus->fail_next(ENXIO);
    EXPECT_EQ(error_of([&] { selects_page_3(device); }), ENXIO);
    EXPECT_TRUE(selects_page_3(device));
    bus->fail_next(EIO);
    EXPECT_EQ(error_of([&] { device.write_byte(flat(0x00, 93), 1); }), EIO);
    bus->fail_next(EREMOTEIO);
    EXPECT_EQ(error_of([&] { device.read_byte(0); }), EREMOTEIO);
}

TEST_F(qsfp_device_test, only_cmis_banked_pages_take_a_bank_written_with_the_page) {
    // 9Fh-AFh are the CDB pages; identifiers 18h, 19h and 1Eh are CMIS.
    for (unsigned page : {0x10, 0x9E, 0xB0, 0xFF})
        EXPECT_TRUE(is_cmis_banked_page(page)) << page;
    for (unsigned page : {0x00, 0x0F, 0x9F, 0xAF})
        EXPECT_FALSE(is_cmis_banked_page(page)) << page;
    for (unsigned id : {0x18, 0x19, 0x1E, 0x0D, 0x11})
        EXPECT_EQ(memory_map_of(id), id < 0x18 ? memory_map::sff8636 : memory_map::cmis) << id;
    bus->set_banked(true);
    bus->set_byte(0, 0, 0x18);  // QSFP-DD
    bus->set_byte(0x11, 154, 0x22, 1);
    bus->set_byte(0x11, 154, 0x23, 3);
    std::array<std::uint8_t, 1> out{};
    auto read = [&](std::uint8_t bank, flat_address address) {
        device.i2c_read_bank(bank, address, out);
        return out[0];
    };
    EXPECT_EQ(read(1, flat(0x11, 154)), 0x22);
    EXPECT_EQ(read(1, flat(0x11, 154)), 0x22);  // bank, page and family cached
    EXPECT_EQ(read(3, flat(0x11, 154)), 0x23);
    EXPECT_EQ(device.read_byte(flat(0x11, 154)), 0x1A);  // bank 0
    read(2, flat(0x01, 142));                            // not a banked page: no bank byte
    read(0, flat(0x10, 130));  // back to a banked page of the bank in place: the page alone
    EXPECT_EQ(bus->trace(),
              "r0#1 w126:0111 r154#1 r154#1 w126:0311 r154#1 w126:0011 r154#1 "
              "w127:01 r142#1 w127:10 r130#1");
    // SFF-8636 modules have no banks, and page 20h is a plain page there.
    bus->set_byte(0, 0, 0x11);
    device.invalidate_cache();
    EXPECT_EQ(error_of([&] { device.i2c_read_bank(1, flat(0x03, 128), out); }), EINVAL);
    bus->trace();
    EXPECT_EQ(device.read_byte(flat(0x20, 128)), 0x00);
    EXPECT_EQ(bus->trace(), "r0#1 w127:20 r128#1");
}

TEST_F(qsfp_device_test, ready_follows_data_not_ready_for_sff8636_and_take_over_leaves_no_cache) {
    bus->set_byte(0, 2, 0x00);
    EXPECT_TRUE(device.i2c_is_ready());
    bus->set_byte(0, 2, 0x01);
    EXPECT_FALSE(device.i2c_is_ready());
    bus->set_byte(0, 0, 0x18);  // CMIS has no Data_Not_Ready: byte 2 bit 0 means nothing there
    EXPECT_TRUE(device.i2c_is_ready());
    bus->set_byte(0, 0, 0x03);  // nor an SFP in a converter: byte 2 is its connector (07h LC)
    bus->set_byte(0, 2, 0x07);
    EXPECT_TRUE(device.i2c_is_ready());
    bus->fail_next(ENXIO);
    EXPECT_FALSE(device.i2c_is_ready());
    // Take-over moves the transport to a fresh device.
    bus->set_byte(0, 0, 0x11);
    EXPECT_TRUE(selects_page_3(device));
    auto fresh = qsfp_device::take_over(device);
    EXPECT_EQ(fresh->name() + " at " + fresh->path(), "qsfp device at cage0");
    EXPECT_EQ(error_of([&] { device.read_byte(0); }), ENODEV);
    EXPECT_EQ(error_of([&] { (void)qsfp_device::take_over(device); }), ENODEV);
    EXPECT_TRUE(selects_page_3(*fresh));
}

TEST_F(qsfp_device_test, threads_sharing_a_device_never_mix_pages) {
    // Without the device mutex, one thread's page select lands between another's select and read,
    // and that read returns the wrong page's markers. Each thread alternates two pages, so every
    // read needs a select, and the bus yields after each transfer to let the threads interleave.
    auto reader = [&](std::uint8_t first, std::uint8_t second, int& wrong) {
        std::array<std::uint8_t, 16> out{};
        for (int i = 0; i < 4000; ++i) {
            const std::uint8_t page = i % 2 ? second : first;
            device.i2c_read(flat(page, 128), out);
            if (out[0] != page * 16) ++wrong;
        }
    };
    int wrong_a = 0, wrong_b = 0;
    std::thread a(reader, 0x00, 0x01, std::ref(wrong_a));
    std::thread b(reader, 0x02, 0x03, std::ref(wrong_b));
    a.join();
    b.join();
    EXPECT_EQ(wrong_a, 0);
    EXPECT_EQ(wrong_b, 0);
}

TEST_F(qsfp_device_test, converter_sfp_space_spans_a0_and_a2_unpaged_and_its_signals) {
    std::array<std::uint8_t, 512> a0_a2{};  // A0h byte n holds n, A2h byte n FFh - n
    for (std::size_t i = 0; i < a0_a2.size(); ++i)
        a0_a2[i] = static_cast<std::uint8_t>(i < 256 ? i : 0x1FF - i);
    a0_a2[65] = 0x3A;  // rate select, TX_DISABLE, TX_FAULT, LOS (normal polarity)
    bus->set_sfp(a0_a2);
    std::vector<std::uint8_t> out(4);
    EXPECT_EQ(error_of([&] { device.sfp_read(0, out); }), ENOTSUP);
    EXPECT_EQ(error_of([&] { (void)device.sfp_tx_fault(); }), ENOTSUP);
    device.set_converter_flag(true);
    device.sfp_read(254, out);  // A0h 254, 255, then A2h 0, 1
    EXPECT_EQ(out, (std::vector<std::uint8_t>{254, 255, 0xFF, 0xFE}));
    device.sfp_write(256 + 110, std::array<std::uint8_t, 1>{0x40});  // A2h byte 110
    EXPECT_EQ(bus->trace(), "r254#2 51:r0#2 51:w110:40");
    EXPECT_EQ(error_of([&] { device.sfp_read(511, out); }), EINVAL);
    // The signals, and what A0h byte 65 advertises of them.
    auto advertised = [&] {
        return std::vector<bool>{device.sfp_rate_select_implemented(),
                                 device.sfp_tx_disable_implemented(),
                                 device.sfp_tx_fault_implemented(), device.sfp_los_implemented(),
                                 device.sfp_los_inverted()};
    };
    EXPECT_EQ(advertised(), (std::vector<bool>{true, true, true, true, false}));
    bus->sfp_signals[sfp_signal::tx_fault] = true;
    EXPECT_TRUE(device.sfp_tx_fault());
    device.sfp_set_tx_disable(true);
    EXPECT_TRUE(bus->sfp_signals[sfp_signal::tx_disable]);
    device.sfp_set_rate_select(true);
    EXPECT_TRUE(device.sfp_rate_select());
    bus->sfp_signals[sfp_signal::los] = true;
    EXPECT_TRUE(device.sfp_los());
    // "Signal detect" polarity only: LOS is turned back into loss of signal.
    device.sfp_write(65, std::array<std::uint8_t, 1>{0x04});
    EXPECT_EQ(advertised(), (std::vector<bool>{false, false, false, true, true}));
    EXPECT_FALSE(device.sfp_los());
    bus->sfp_signals[sfp_signal::los] = false;
    EXPECT_TRUE(device.sfp_los());
    bus->sfp_lines_wired = false;
    EXPECT_EQ(error_of([&] { (void)device.sfp_tx_disable(); }), ENOTSUP);
}

// The SFF-8472 map of a real SFP+ SR in a converter, as the optical handlers reach it.
class sfp_map_test : public ::testing::Test {
  protected:
    sfp_map_test() {
        bus->set_sfp(
            test::load_module_dump("sff8472_sfpplus_10g_sr_finisar_ftlx8571d3bcl_auj0rcj.hex"));
        device->set_converter_flag(true);
    }
    void put(std::uint16_t address, std::vector<std::uint8_t> bytes) {
        device->sfp_write(address, bytes);
        bus->trace();
    }
    std::shared_ptr<fake_transport> bus = std::make_shared<fake_transport>();
    std::shared_ptr<qsfp_device> device = std::make_shared<qsfp_device>("cage 3", bus);
    sfp_reg_map map{std::make_shared<converter_sfp_device>(device)};
};

TEST_F(sfp_map_test, identity_of_a_real_sfp_plus_sr_and_diagnostics) {
    // The text fields come with their padding.
    EXPECT_EQ(map.get_vendor_name() + "|" + map.get_vendor_pn() + "|" + map.get_vendor_rev() + "|" +
                  map.get_vendor_sn() + "|" + map.get_vendor_oui(),
              "FINISAR CORP.   |FTLX8571D3BCL   |A   |AUJ0RCJ         |00:90:65");
    EXPECT_TRUE(map.get_transceiver_comp__10g_base_sr());
    EXPECT_DOUBLE_EQ(map.get_wavelength(false), 850.0);
    // Diagnostics are raw big-endian words.
    put(256 + 96, {0x80, 0x00, 0x81, 0x02, 0x1F, 0x40, 0x00, 0x00, 0xFF, 0xFF});
    put(256 + 0, {0x55, 0x00, 0x00, 0x00, 0x00, 0x00, 0xFB, 0x00});
    EXPECT_EQ(std::tuple(map.get_temp(), map.get_vcc(), map.get_tx_bias(), map.get_rx_power(),
                         map.get_temp_high_alarm_th(), map.get_temp_low_warn_th()),
              std::tuple(-32768, 0x8102u, 8000u, 65535u, 85 * 256, -5 * 256));
    bus->fail_next(EIO, 0);  // a failed read reaches the caller
    EXPECT_EQ(error_of([&] { (void)map.get_temp(); }), EIO);
    EXPECT_EQ(error_of([&] { (void)map.get_vendor_name(); }), EIO);
}

TEST_F(sfp_map_test, junk_strings_read_as_err_with_one_warning_and_setters_keep_other_bits) {
    msg_log::log_capture capture;
    put(20, std::vector<std::uint8_t>(16, ' '));
    EXPECT_EQ(map.get_vendor_name(), "                ");  // sixteen spaces are text
    put(20, {0});
    EXPECT_EQ(map.get_vendor_name(), "Err");
    put(40, {'A', 0x80, 0});
    EXPECT_EQ(map.get_vendor_pn(), "Err");
    auto warnings = capture.find("SFP cage 3 vendor part number string is junk: 41 80 ");
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_EQ(warnings[0].severity, msg_log::warning);
    EXPECT_EQ(warnings[0].tag, "sfp_device");
    put(56, {127});  // DEL passes on purpose
    EXPECT_EQ(map.get_vendor_rev().front(), '\x7f');
    // Bit setters keep the other bits; the tunable fields select A2h page 02h first.
    put(256 + 73, {0x81});
    put(256 + 110, {0x82});
    put(256 + 118, {0x80});
    put(256 + 133, {0xC0});  // first frequency: 192 THz
    map.set_rs1_rs2_ignore(true);
    EXPECT_TRUE(map.get_rs1_rs2_ignore());
    map.set_rs1_rs2_ignore(false);
    map.set_soft_tx_disable_select(true);
    map.set_power_level(true);
    EXPECT_EQ(map.get_first_freq_thz_lsb(), 0xC0);
    map.set_channel_number_lsb(17);
    EXPECT_EQ(bus->trace(),
              "51:r73#1 51:w73:91 51:r73#1 51:r73#1 51:w73:81 51:r110#1 51:w110:c2 51:r118#1 "
              "51:w118:81 51:w127:02 51:r133#1 51:w127:02 51:w145:11");
}

// The block a monitoring cycle reads, and the fields on A2h pages other than the one selected.
TEST_F(sfp_map_test, cycle_block_voa_and_tuning_status_read_in_one_transfer_after_a_select) {
    put(256 + 96, {0x14, 0x02, 0x81, 0xB1});
    put(256 + 110, {0x06});
    put(256 + 116, {0x80});
    put(256 + 168, {0x30});  // A2h upper bytes as the fake holds them, whatever page is selected
    put(256 + 248, {0x02, 0x26, 0x01, 0x00, 0x05, 0xDC});
    const auto block = map.get_cycle_block();
    EXPECT_EQ(std::tuple(block[0], block[1], block[2], block[3], block[14], block[20]),
              std::tuple(0x14, 0x02, 0x81, 0xB1, 0x06, 0x80));
    EXPECT_EQ(map.get_voa_attenuation_set(), 550u);
    EXPECT_EQ(map.get_voa_attenuation_max(), 1500u);
    EXPECT_TRUE(map.get_tune_status_tuning());
    EXPECT_TRUE(map.get_tune_status_unlocked());
    map.set_voa_attenuation(1234);
    EXPECT_EQ(map.get_voa_attenuation_set(), 1234u);
    EXPECT_EQ(bus->trace(),
              "51:r96#22 51:w127:00 51:r248#2 51:w127:00 51:r252#2 51:w127:02 51:r168#1 "
              "51:w127:02 51:r168#1 51:w127:00 51:w248:04d2 51:w127:00 51:r248#2");
}

}  // namespace
}  // namespace qsfpd::cage
