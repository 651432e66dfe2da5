#include "qsfp_device.hpp"

#include <gtest/gtest.h>

#include "errno_of.hpp"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <array>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <numeric>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

#include "converter_sfp_device.hpp"
#include "fake_transport.hpp"
#include "module_dump.hpp"
#include "sfp_reg_map.hpp"

namespace qsfpd::cage {
namespace {

using test::fake_transport;

using qsfpd::test::error_of;

class qsfp_device_test : public ::testing::Test {
  protected:
    qsfp_device_test() : bus(std::make_shared<fake_transport>()), device("cage0", bus) {
        // Every page's upper bytes hold (page, byte) markers so a read shows where it came from.
        for (unsigned page : {0x00u, 0x01u, 0x02u, 0x03u, 0x11u, 0x20u})
            for (unsigned b = 128; b < 256; ++b)
                bus->set_byte(static_cast<std::uint8_t>(page), static_cast<std::uint8_t>(b),
                              static_cast<std::uint8_t>(page * 16 + (b & 0x0F)));
        bus->set_byte(0, 0, 0x11);  // QSFP28, SFF-8636
    }

    std::shared_ptr<fake_transport> bus;
    qsfp_device device;
};

TEST(flat_address, maps_pages_and_bytes) {
    EXPECT_EQ(flat(0x00, 5), 5u);
    EXPECT_EQ(flat(0x03, 5), 5u);  // the lower page is the same on every page
    EXPECT_EQ(flat(0x00, 128), 128u);
    EXPECT_EQ(flat(0x00, 255), 255u);
    EXPECT_EQ(flat(0x01, 128), 256u);
    EXPECT_EQ(flat(0x03, 128), 512u);
    EXPECT_EQ(flat(0x03, 255), 639u);
    EXPECT_EQ(flat(0x11, 128), 0x11u * 128 + 128);
    EXPECT_EQ(flat(0x11, 154), 0x91Au);  // C-CMIS / CMIS page 11h TX power, lane 1
}

TEST(flat_address, banked_pages_and_families) {
    EXPECT_FALSE(is_cmis_banked_page(0x00));
    EXPECT_FALSE(is_cmis_banked_page(0x0F));
    EXPECT_TRUE(is_cmis_banked_page(0x10));
    EXPECT_TRUE(is_cmis_banked_page(0x9E));
    EXPECT_FALSE(is_cmis_banked_page(0x9F));
    EXPECT_FALSE(is_cmis_banked_page(0xAF));
    EXPECT_TRUE(is_cmis_banked_page(0xB0));
    EXPECT_EQ(memory_map_of(0x18), memory_map::cmis);
    EXPECT_EQ(memory_map_of(0x19), memory_map::cmis);
    EXPECT_EQ(memory_map_of(0x1E), memory_map::cmis);
    EXPECT_EQ(memory_map_of(0x0D), memory_map::sff8636);
    EXPECT_EQ(memory_map_of(0x11), memory_map::sff8636);
}

TEST_F(qsfp_device_test, lower_page_reads_need_no_page_select) {
    bus->set_byte(0, 22, 0x19);
    EXPECT_EQ(device.read_byte(22), 0x19);
    EXPECT_EQ(bus->select_writes(), 0u);
    EXPECT_EQ(bus->count(), 1u);
}

TEST_F(qsfp_device_test, upper_page_reads_select_the_page_once) {
    std::array<std::uint8_t, 4> out{};
    device.i2c_read(flat(0x03, 130), out);
    EXPECT_EQ(out, (std::array<std::uint8_t, 4>{0x32, 0x33, 0x34, 0x35}));
    ASSERT_EQ(bus->log().size(), 2u);
    EXPECT_TRUE(bus->log()[0].write);
    EXPECT_EQ(bus->log()[0].offset, 127);
    EXPECT_EQ(bus->log()[0].data, std::vector<std::uint8_t>{0x03});
    EXPECT_EQ(bus->log()[1].offset, 130);

    // Steady state: the same page again is one transfer, no select.
    bus->clear_log();
    device.i2c_read(flat(0x03, 200), out);
    EXPECT_EQ(bus->count(), 1u);
    EXPECT_EQ(bus->select_writes(), 0u);

    // Another page selects again, and coming back selects again too.
    device.i2c_read(flat(0x01, 128), out);
    device.i2c_read(flat(0x03, 128), out);
    EXPECT_EQ(bus->select_writes(), 2u);
    EXPECT_EQ(out[0], 0x30);
}

TEST_F(qsfp_device_test, reads_crossing_a_page_boundary_are_split) {
    std::vector<std::uint8_t> out(8);
    device.i2c_read(flat(0x00, 252), out);  // 252..255 of page 00h, then 128..131 of page 01h
    EXPECT_EQ(out, (std::vector<std::uint8_t>{0x0C, 0x0D, 0x0E, 0x0F, 0x10, 0x11, 0x12, 0x13}));
    for (const auto& t : bus->log())
        EXPECT_LE(t.offset + t.length, 256u);

    // From the lower page into upper page 00h: two reads, the upper one after selecting 00h.
    bus->clear_log();
    bus->set_byte(0, 127, 0);
    std::vector<std::uint8_t> across(4);
    device.invalidate_cache();
    device.i2c_read(126, across);
    const auto log = bus->log();
    ASSERT_EQ(log.size(), 3u);
    EXPECT_EQ(log[0].offset, 126);
    EXPECT_EQ(log[0].length, 2u);
    EXPECT_TRUE(log[1].write);
    EXPECT_EQ(log[2].offset, 128);
    EXPECT_EQ(across[2], 0x00);
    EXPECT_EQ(across[3], 0x01);
}

TEST_F(qsfp_device_test, whole_page_images_read_back_in_flat_layout) {
    std::vector<std::uint8_t> image(640);
    device.i2c_read(0, image);
    EXPECT_EQ(image[0], 0x11);
    EXPECT_EQ(image[128], 0x00);
    EXPECT_EQ(image[256 + 5], 0x15);
    EXPECT_EQ(image[639], 0x3F);
    EXPECT_EQ(bus->select_writes(), 4u);  // pages 00h..03h once each
}

TEST_F(qsfp_device_test, writes_select_the_page_and_land_there) {
    const std::array<std::uint8_t, 2> data{0xAA, 0xBB};
    device.i2c_write(flat(0x02, 250), data);
    EXPECT_EQ(bus->byte(0x02, 250), 0xAA);
    EXPECT_EQ(bus->byte(0x02, 251), 0xBB);
    device.write_byte(flat(0x00, 93), 0x05);
    EXPECT_EQ(bus->byte(0, 93), 0x05);
}

TEST_F(qsfp_device_test, a_write_to_the_page_select_byte_drops_the_cache) {
    std::array<std::uint8_t, 1> out{};
    device.i2c_read(flat(0x03, 128), out);
    device.write_byte(127, 0x01);  // someone selects page 01h by hand
    bus->clear_log();
    device.i2c_read(flat(0x03, 128), out);
    EXPECT_EQ(bus->select_writes(), 1u);
    EXPECT_EQ(out[0], 0x30);
}

TEST_F(qsfp_device_test, failures_carry_the_errno_and_drop_the_cache) {
    std::array<std::uint8_t, 1> out{};
    device.i2c_read(flat(0x03, 128), out);
    bus->fail_next(ENXIO);
    EXPECT_EQ(error_of([&] { device.i2c_read(flat(0x03, 128), out); }), ENXIO);
    // The module may have lost its page select: the next read selects again.
    bus->clear_log();
    device.i2c_read(flat(0x03, 128), out);
    EXPECT_EQ(bus->select_writes(), 1u);
    EXPECT_EQ(out[0], 0x30);

    bus->fail_next(EIO);
    EXPECT_EQ(error_of([&] { device.write_byte(flat(0x00, 93), 1); }), EIO);
    bus->fail_next(EREMOTEIO);
    EXPECT_EQ(error_of([&] { device.read_byte(0); }), EREMOTEIO);
}

TEST_F(qsfp_device_test, out_of_range_addresses_are_refused) {
    std::array<std::uint8_t, 2> out{};
    EXPECT_EQ(error_of([&] { device.i2c_read(flat_end - 1, out); }), EINVAL);
    EXPECT_EQ(error_of([&] { device.i2c_read(flat_end, out); }), EINVAL);
    EXPECT_EQ(bus->count(), 0u);
}

TEST_F(qsfp_device_test, invalidate_and_line_changes_force_a_new_select) {
    std::array<std::uint8_t, 1> out{};
    device.i2c_read(flat(0x03, 128), out);
    device.invalidate_cache();
    bus->clear_log();
    device.i2c_read(flat(0x03, 128), out);
    EXPECT_EQ(bus->select_writes(), 1u);

    for (unsigned line : {line::reset, line::lpmode}) {
        device.pin_set(line, true);
        bus->clear_log();
        device.i2c_read(flat(0x03, 128), out);
        EXPECT_EQ(bus->select_writes(), 1u) << "line " << line;
    }
    // An LED does not touch the module.
    device.pin_set(line::tx_led_green, true);
    bus->clear_log();
    device.i2c_read(flat(0x03, 128), out);
    EXPECT_EQ(bus->select_writes(), 0u);
}

TEST(qsfp_device_banks, cmis_banked_pages_select_bank_and_page_in_one_write) {
    auto bus = std::make_shared<fake_transport>();
    bus->set_banked(true);
    bus->set_byte(0, 0, 0x18);  // QSFP-DD
    bus->set_byte(0x11, 154, 0x21, 0);
    bus->set_byte(0x11, 154, 0x22, 1);
    bus->set_byte(0x11, 154, 0x23, 3);
    qsfp_device device("dd", bus);

    std::array<std::uint8_t, 1> out{};
    device.i2c_read_bank(1, flat(0x11, 154), out);
    EXPECT_EQ(out[0], 0x22);
    const auto log = bus->log();
    ASSERT_EQ(log.size(), 3u);  // identifier, bank+page, data
    EXPECT_EQ(log[0].offset, 0);
    EXPECT_TRUE(log[1].write);
    EXPECT_EQ(log[1].offset, 126);
    EXPECT_EQ(log[1].data, (std::vector<std::uint8_t>{1, 0x11}));

    bus->clear_log();
    device.i2c_read_bank(1, flat(0x11, 154), out);
    EXPECT_EQ(bus->count(), 1u);  // cached bank and page, cached family

    device.i2c_read_bank(3, flat(0x11, 154), out);
    EXPECT_EQ(out[0], 0x23);
    device.i2c_read(flat(0x11, 154), out);  // bank 0
    EXPECT_EQ(out[0], 0x21);

    // Non-banked pages ignore the bank: no bank byte written.
    bus->clear_log();
    device.i2c_read_bank(2, flat(0x01, 142), out);
    ASSERT_EQ(bus->log().size(), 2u);
    EXPECT_EQ(bus->log()[0].offset, 127);
}

TEST(qsfp_device_banks, sff8636_modules_have_no_banks) {
    auto bus = std::make_shared<fake_transport>();
    bus->set_byte(0, 0, 0x11);
    qsfp_device device("q28", bus);
    std::array<std::uint8_t, 1> out{};
    EXPECT_EQ(error_of([&] { device.i2c_read_bank(1, flat(0x03, 128), out); }), EINVAL);
    // Page 20h on SFF-8636 is a plain page: only byte 127 is written.
    bus->clear_log();
    device.i2c_read(flat(0x20, 128), out);
    for (const auto& t : bus->log())
        if (t.write) {
            EXPECT_EQ(t.offset, 127);
        }
}

TEST_F(qsfp_device_test, ready_follows_data_not_ready_for_sff8636) {
    bus->set_byte(0, 2, 0x00);
    EXPECT_TRUE(device.i2c_is_ready());
    bus->set_byte(0, 2, 0x01);
    EXPECT_FALSE(device.i2c_is_ready());
    bus->set_byte(0, 0, 0x18);  // CMIS has no Data_Not_Ready: byte 2 bit 0 means nothing there
    EXPECT_TRUE(device.i2c_is_ready());
    bus->fail_next(ENXIO);
    EXPECT_FALSE(device.i2c_is_ready());
}

TEST_F(qsfp_device_test, pins_and_presence_pass_through) {
    device.pin_set(line::lpmode, true);
    EXPECT_TRUE(bus->pins[line::lpmode]);
    EXPECT_TRUE(device.pin_get(line::lpmode));
    device.pin_set(line::rx_led_yellow, true);
    EXPECT_TRUE(device.pin_get(line::rx_led_yellow));
    EXPECT_FALSE(device.pin_get(line::rx_led_green));
    EXPECT_TRUE(device.module_present());
    bus->present = false;
    EXPECT_FALSE(device.module_present());
}

TEST_F(qsfp_device_test, an_empty_cage_drops_the_cache) {
    std::array<std::uint8_t, 1> out{};
    device.i2c_read(flat(0x03, 128), out);
    EXPECT_TRUE(device.module_present());
    bus->clear_log();
    device.i2c_read(flat(0x03, 128), out);
    EXPECT_EQ(bus->select_writes(), 0u);
    bus->present = false;
    EXPECT_FALSE(device.module_present());
    bus->present = true;
    device.i2c_read(flat(0x03, 128), out);
    EXPECT_EQ(bus->select_writes(), 1u);
}

TEST_F(qsfp_device_test, take_over_moves_the_transport_and_leaves_no_cache) {
    std::array<std::uint8_t, 1> out{};
    device.i2c_read(flat(0x03, 128), out);
    auto fresh = qsfp_device::take_over(device);
    EXPECT_EQ(fresh->name(), "qsfp device");
    EXPECT_EQ(fresh->path(), "cage0");
    EXPECT_EQ(error_of([&] { device.read_byte(0); }), ENODEV);
    EXPECT_EQ(error_of([&] { (void)qsfp_device::take_over(device); }), ENODEV);
    bus->clear_log();
    fresh->i2c_read(flat(0x03, 128), out);
    EXPECT_EQ(bus->select_writes(), 1u);
    EXPECT_EQ(out[0], 0x30);
}

TEST_F(qsfp_device_test, threads_sharing_a_device_never_mix_pages) {
    // Without the device mutex, one thread's page select lands between another's select and read,
    // and that read returns the wrong page's markers. Each thread alternates two pages, so every
    // read needs a select, and the bus yields after each transfer to let the threads interleave.
    bus->set_yield(true);
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

class converter_test : public ::testing::Test {
  protected:
    converter_test() : bus(std::make_shared<fake_transport>()), device("qsa", bus) {
        std::vector<std::uint8_t> a0(256), a2(256);
        std::iota(a0.begin(), a0.end(), 0);
        for (std::size_t i = 0; i < a2.size(); ++i)
            a2[i] = static_cast<std::uint8_t>(0xFF - i);
        a0[65] = 0x3A;  // rate select, TX_DISABLE, TX_FAULT, LOS (normal polarity)
        bus->set_sfp(a0, a2);
    }
    std::shared_ptr<fake_transport> bus;
    qsfp_device device;
};

TEST_F(converter_test, sfp_access_needs_the_converter_flag) {
    std::array<std::uint8_t, 1> out{};
    EXPECT_FALSE(device.get_converter_flag());
    EXPECT_EQ(error_of([&] { device.sfp_read(0, out); }), ENOTSUP);
    EXPECT_EQ(error_of([&] { (void)device.sfp_tx_fault(); }), ENOTSUP);
    device.set_converter_flag(true);
    EXPECT_TRUE(device.get_converter_flag());
    device.sfp_read(20, out);
    EXPECT_EQ(out[0], 20);
}

TEST_F(converter_test, sfp_linear_space_spans_a0_and_a2) {
    device.set_converter_flag(true);
    std::vector<std::uint8_t> out(4);
    device.sfp_read(254, out);  // A0h 254, 255, then A2h 0, 1
    EXPECT_EQ(out, (std::vector<std::uint8_t>{254, 255, 0xFF, 0xFE}));
    const auto log = bus->log();
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log[0].device_address, module_address);
    EXPECT_EQ(log[1].device_address, sfp_diagnostics_address);
    EXPECT_EQ(log[1].offset, 0);
    EXPECT_EQ(bus->select_writes(), 0u);  // no QSFP paging on the SFP side

    const std::array<std::uint8_t, 1> value{0x40};
    device.sfp_write(256 + 110, value);  // A2h byte 110
    EXPECT_EQ(bus->sfp_byte(256 + 110), 0x40);
    EXPECT_EQ(error_of([&] { device.sfp_read(511, out); }), EINVAL);
}

TEST_F(converter_test, sfp_signals_and_their_advertisement) {
    device.set_converter_flag(true);
    EXPECT_TRUE(device.sfp_rate_select_implemented());
    EXPECT_TRUE(device.sfp_tx_disable_implemented());
    EXPECT_TRUE(device.sfp_tx_fault_implemented());
    EXPECT_TRUE(device.sfp_los_implemented());
    EXPECT_FALSE(device.sfp_los_inverted());

    bus->sfp_signals[sfp_signal::tx_fault] = true;
    EXPECT_TRUE(device.sfp_tx_fault());
    device.sfp_set_tx_disable(true);
    EXPECT_TRUE(bus->sfp_signals[sfp_signal::tx_disable]);
    EXPECT_TRUE(device.sfp_tx_disable());
    device.sfp_set_rate_select(true);
    EXPECT_TRUE(device.sfp_rate_select());
    bus->sfp_signals[sfp_signal::los] = true;
    EXPECT_TRUE(device.sfp_los());
}

TEST_F(converter_test, inverted_los_is_turned_back_into_loss_of_signal) {
    device.set_converter_flag(true);
    const std::array<std::uint8_t, 1> options{0x04};  // "signal detect" polarity only
    device.sfp_write(65, options);
    EXPECT_TRUE(device.sfp_los_inverted());
    EXPECT_TRUE(device.sfp_los_implemented());
    EXPECT_FALSE(device.sfp_tx_fault_implemented());
    bus->sfp_signals[sfp_signal::los] = true;  // signal present
    EXPECT_FALSE(device.sfp_los());
    bus->sfp_signals[sfp_signal::los] = false;
    EXPECT_TRUE(device.sfp_los());
}

TEST_F(converter_test, unwired_sfp_lines_report_enotsup) {
    device.set_converter_flag(true);
    bus->sfp_lines_wired = false;
    EXPECT_EQ(error_of([&] { (void)device.sfp_tx_disable(); }), ENOTSUP);
}

TEST(converter_sfp, the_sff8472_map_reads_a_real_sfp_through_the_converter) {
    const auto image =
        test::load_module_dump("sff8472_sfpplus_10g_sr_finisar_ftlx8571d3bcl_auj0rcj.hex");
    ASSERT_EQ(image.size(), 512u);
    auto bus = std::make_shared<fake_transport>();
    bus->set_sfp(std::span(image).first(256), std::span(image).subspan(256));
    auto device = std::make_shared<qsfp_device>("qsa", bus);
    device->set_converter_flag(true);
    sfp_reg_map map(std::make_shared<converter_sfp_device>(device));
    // That map hands the 16-byte fields over with their padding.
    EXPECT_EQ(map.get_vendor_name(), "FINISAR CORP.   ");
    EXPECT_EQ(map.get_vendor_pn(), "FTLX8571D3BCL   ");
    EXPECT_EQ(map.get_vendor_sn(), "AUJ0RCJ         ");

    device->set_converter_flag(false);
    EXPECT_THROW((void)map.get_vendor_name(), std::system_error);
}

class platform_test : public ::testing::Test {
  protected:
    void SetUp() override {
        root =
            std::filesystem::temp_directory_path() / ("qsfpd-cage-" + std::to_string(::getpid()));
        std::filesystem::create_directories(root / "proc/device-tree");
        ::setenv("QSFPD_ROOT", root.c_str(), 1);
    }
    void TearDown() override {
        ::unsetenv("QSFPD_ROOT");
        std::filesystem::remove_all(root);
    }
    std::filesystem::path root;
};

TEST_F(platform_test, zelt_markers_come_from_the_device_tree) {
    EXPECT_FALSE(qsfp_device::is_qsfp_zelt20());
    std::ofstream(root / "proc/device-tree/zelt30").put('\0');
    EXPECT_FALSE(qsfp_device::is_qsfp_zelt20());
    EXPECT_TRUE(qsfp_device::is_qsfp_zelt30());
    EXPECT_FALSE(qsfp_device::is_qsfp_zelt40());
    std::ofstream(root / "proc/device-tree/zelt50").put('\0');
    EXPECT_TRUE(qsfp_device::is_qsfp_zelt50());
}

TEST_F(platform_test, socket_paths_need_the_emulator_transport) {
    const auto socket_path = root / "cage.sock";
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, socket_path.c_str(), sizeof(addr.sun_path) - 1);
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);

    qsfp_device::set_transport_factory({});
    try {
        qsfp_device device(socket_path.string());
        ADD_FAILURE() << "a socket path without an emulator transport must throw";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("emulator transport is not available"),
                  std::string::npos);
    }

    std::string asked;
    auto bus = std::make_shared<fake_transport>();
    qsfp_device::set_transport_factory([&](const std::string& path) {
        asked = path;
        return bus;
    });
    qsfp_device device(socket_path.string());
    EXPECT_EQ(asked, socket_path.string());
    bus->set_byte(0, 0, 0x0D);
    EXPECT_EQ(device.read_byte(0), 0x0D);
    qsfp_device::set_transport_factory({});
    ::close(fd);
}

TEST_F(platform_test, other_paths_come_from_the_board_file) {
    // No board file under the root: the hardware transport says so.
    try {
        qsfp_device device("/dev/qsfp3");
        ADD_FAILURE() << "no board file must throw";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("board file"), std::string::npos);
    }
}

}  // namespace
}  // namespace qsfpd::cage
