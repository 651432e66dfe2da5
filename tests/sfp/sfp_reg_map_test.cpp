#include "sfp_reg_map.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <system_error>

#include "../support/module_dump.hpp"
#include "log_capture.hpp"
#include "msg_log.hpp"

namespace {

// An SFP held in memory: A0h at 0..255, A2h at 256..511 (upper A2h as page 02h when selected).
class memory_sfp : public sfp_device_base {
  public:
    explicit memory_sfp(std::vector<std::uint8_t> image) : bytes(std::move(image)) {
        bytes.resize(512 + 128, 0);
    }
    void read(unsigned address, unsigned length, std::uint8_t* buffer) override {
        if (fail) throw std::system_error(EIO, std::generic_category(), "sfp read");
        ++reads;
        for (unsigned i = 0; i < length; ++i)
            buffer[i] = bytes.at(map(address + i));
    }
    void write(unsigned address, unsigned length, const std::uint8_t* buffer) override {
        for (unsigned i = 0; i < length; ++i)
            bytes.at(map(address + i)) = buffer[i];
    }
    std::string name() const override { return "cage 3"; }

    // A2h upper bytes of page 02h are kept after the 512 linear bytes.
    unsigned map(unsigned address) const {
        if (address >= 256 + 128 && address < 512 && bytes[256 + 127] == 2) return address + 128;
        return address;
    }

    std::vector<std::uint8_t> bytes;
    bool fail = false;
    int reads = 0;
};

class SfpRegMap : public ::testing::Test {
  protected:
    std::shared_ptr<memory_sfp> sfp = std::make_shared<memory_sfp>(
        qsfpd::test::load_module_dump("sff8472_sfpplus_10g_sr_finisar_ftlx8571d3bcl_auj0rcj.hex"));
    sfp_reg_map map{sfp};
};

TEST_F(SfpRegMap, IdentityOfARealSfpPlusSr) {
    EXPECT_EQ(map.get_phys_dev_id(), 0x03);
    EXPECT_EQ(map.get_vendor_name(), "FINISAR CORP.   ");
    EXPECT_EQ(map.get_vendor_pn(), "FTLX8571D3BCL   ");
    EXPECT_EQ(map.get_vendor_rev(), "A   ");
    EXPECT_EQ(map.get_vendor_sn(), "AUJ0RCJ         ");
    EXPECT_EQ(map.get_vendor_oui(), "00:90:65");
    EXPECT_EQ(map.get_nom_bit_rate(), 103);
    EXPECT_TRUE(map.get_transceiver_comp__10g_base_sr());
    EXPECT_FALSE(map.get_transceiver_comp__10g_base_lr());
    EXPECT_FALSE(map.get_transceiver_comp__cable_technology_is_cable());
    EXPECT_TRUE(map.get_diag_mon_type__int_calib());
    EXPECT_DOUBLE_EQ(map.get_wavelength(false), 850.0);
}

TEST_F(SfpRegMap, DiagnosticsAreRawBigEndianWords) {
    // Write known values into A2h and read them back through the accessors.
    auto put = [&](unsigned address, std::uint16_t v) {
        sfp->bytes[address] = static_cast<std::uint8_t>(v >> 8);
        sfp->bytes[address + 1] = static_cast<std::uint8_t>(v);
    };
    put(352, 0x8000);
    put(354, 0x8102);
    put(356, 0x1F40);
    put(360, 0xFFFF);
    put(256, 0x5500);
    put(262, 0xFB00);
    EXPECT_EQ(map.get_temp(), -32768);
    EXPECT_EQ(map.get_vcc(), 0x8102u);
    EXPECT_EQ(map.get_tx_bias(), 8000u);
    EXPECT_EQ(map.get_rx_power(), 65535u);
    EXPECT_EQ(map.get_temp_high_alarm_th(), 85 * 256);
    EXPECT_EQ(map.get_temp_low_warn_th(), -5 * 256);
}

TEST_F(SfpRegMap, JunkStrings) {
    msg_log::log_capture capture;
    std::memcpy(&sfp->bytes[20], "                ", 16);
    EXPECT_EQ(map.get_vendor_name(), "                ");  // sixteen spaces are text
    sfp->bytes[20] = 0;
    EXPECT_EQ(map.get_vendor_name(), "Err");
    sfp->bytes[40] = 'A';
    sfp->bytes[41] = 0x80;
    sfp->bytes[42] = 0;
    EXPECT_EQ(map.get_vendor_pn(), "Err");
    auto warnings = capture.find("SFP cage 3 vendor part number string is junk: 41 80 ");
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_EQ(warnings[0].severity, msg_log::warning);
    EXPECT_EQ(warnings[0].tag, "sfp_device");
    sfp->bytes[56] = 127;  // DEL passes on purpose
    EXPECT_EQ(map.get_vendor_rev().front(), '\x7f');
}

TEST_F(SfpRegMap, BitSettersKeepTheOtherBits) {
    sfp->bytes[329] = 0x81;
    map.set_rs1_rs2_ignore(true);
    EXPECT_EQ(sfp->bytes[329], 0x91);
    EXPECT_TRUE(map.get_rs1_rs2_ignore());
    map.set_rs1_rs2_ignore(false);
    EXPECT_EQ(sfp->bytes[329], 0x81);
    map.set_soft_tx_disable_select(true);
    EXPECT_EQ(sfp->bytes[256 + 110] & 0x40, 0x40);
    map.set_power_level(true);
    EXPECT_EQ(sfp->bytes[256 + 118] & 0x01, 0x01);
}

TEST_F(SfpRegMap, TunableFieldsSelectPageTwo) {
    sfp->bytes[256 + 127] = 0;
    sfp->bytes[512 + 4] = 0x00;  // page 02h byte 132: first frequency THz msb
    sfp->bytes[512 + 5] = 0xC0;  // 192 THz
    EXPECT_EQ(map.get_first_freq_thz_lsb(), 0xC0);
    EXPECT_EQ(sfp->bytes[256 + 127], 2);
    map.set_channel_number_lsb(17);
    EXPECT_EQ(sfp->bytes[512 + 17], 17);
}

TEST_F(SfpRegMap, ReadFailuresReachTheCaller) {
    sfp->fail = true;
    EXPECT_THROW(map.get_temp(), std::system_error);
    EXPECT_THROW(map.get_vendor_name(), std::system_error);
}

}  // namespace
