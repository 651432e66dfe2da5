#include "emu_service.hpp"

#include <gtest/gtest.h>

#include <sstream>
#include <thread>

#include "../support/errno_of.hpp"
#include "coherent_module.hpp"
#include "emu_ctl.hpp"
#include "hex_bytes.hpp"
#include "qsfp_device.hpp"
#include "remote_cage_transport.hpp"
#include "virtual_clock.hpp"

namespace {
using namespace qsfpd;
using namespace std::chrono_literals;
using qsfpd::test::error_of;
using qsfpd::test::message_of;
using bytes = std::vector<std::uint8_t>;

// The emulator process's service, run in-process on its real sockets; a daemon reaches its cages
// through the remote cage transport.
class EmuService : public ::testing::Test {
  protected:
    void SetUp() override {
        emu::emu_service::options options;
        options.dir = dir;
        options.cages = 4;
        service = std::make_unique<emu::emu_service>(options, clock);
        thread = std::thread([this] { service->run(); });
    }
    void TearDown() override {
        service->stop();
        thread.join();
        service.reset();
        std::filesystem::remove_all(dir);
    }
    // Runs `qsfp-emu ctl`: its exit status, a space and the first line it printed.
    std::string ctl(std::vector<std::string> args) {
        args.insert(args.begin(), {"--dir", dir.string()});
        std::ostringstream out;
        const int status = emu::run_ctl(args, out, out);
        return std::to_string(status) + " " + out.str().substr(0, out.str().find('\n'));
    }
    remote::remote_cage_transport open_cage(unsigned index) {
        return remote::remote_cage_transport((dir / ("qsfp" + std::to_string(index))).string());
    }

    std::shared_ptr<virtual_clock> clock = std::make_shared<virtual_clock>();
    std::filesystem::path dir =
        std::filesystem::temp_directory_path() / ("qsfp-emu-test-" + std::to_string(::getpid()));
    std::unique_ptr<emu::emu_service> service;
    std::thread thread;
};

TEST_F(EmuService, ADaemonReachesTheCagesThroughTheSocketsAndBadRequestsAreRefused) {
    auto qsfp3 = open_cage(3);
    EXPECT_FALSE(qsfp3.module_present());
    EXPECT_EQ(ctl({"insert", "3", "qsfp28_100g_lr4"}), "0 true");
    EXPECT_TRUE(qsfp3.module_present());
    bytes name(16);
    // Not answering during the window after insertion, then answering.
    EXPECT_EQ(error_of([&] { qsfp3.i2c_read(0x50, 148, name); }), ENXIO);
    clock->advance(10s);
    qsfp3.i2c_read(0x50, 148, name);
    EXPECT_EQ(std::string(name.begin(), name.end()), "DELL            ");
    EXPECT_EQ(ctl({"peek", "3", "148", "4"}), R"(0 "44 45 4c 4c")");
    const auto out = ctl({"counters"});
    // The bus in total and per cage: a nack (11 bits) and a combined read of 16 bytes (174 bits)
    // at 400 kHz, both at the virtual clock's whole seconds.
    const std::string counts = R"("transactions":2,"reads":2,"writes":0,"nacks":1,"errors":0,)"
                               R"("bytes":16,"wire_time_ns":462500)";
    EXPECT_EQ(out.rfind(R"(0 {"speed_hz":400000,"total":{)" + counts + "},", 0), 0u) << out;
    EXPECT_NE(
        out.find(R"({"name":"qsfp3",)" + counts +
                 R"(,"last_access_ns":1576800010000000000,"recent_access_ms_in_second":[0,0]})"),
        std::string::npos);
    EXPECT_EQ(ctl({"remove", "3"}), "0 true");
    EXPECT_FALSE(qsfp3.module_present());
    // A device path naming the socket needs the emulator transport installed.
    const auto path = (dir / "qsfp3").string();
    cage::qsfp_device::set_transport_factory({});
    EXPECT_NE(message_of([&] {
                  cage::qsfp_device device(path);
              }).find("emulator transport is not available"),
              std::string::npos);
    cage::qsfp_device::set_transport_factory([](const std::string& socket) {
        return std::make_shared<remote::remote_cage_transport>(socket);
    });
    cage::qsfp_device device(path);
    cage::qsfp_device::set_transport_factory({});
    EXPECT_FALSE(device.module_present());
    ASSERT_EQ(ctl({"insert", "3", "qsfp28_100g_lr4"}), "0 true");
    EXPECT_TRUE(device.module_present());
    EXPECT_EQ(error_of([&] { (void)open_cage(9).pin_get(0); }), ECONNREFUSED);  // no such cage
    // Writes, pins, signals, pokes and faults cross the sockets.
    ASSERT_EQ(ctl({"insert", "1", "qsfp28_100g_lr4"}), "0 true");
    auto qsfp1 = open_cage(1);
    clock->advance(10s);
    qsfp1.pin_set(cage::line::lpmode, true);
    EXPECT_TRUE(qsfp1.pin_get(cage::line::lpmode));
    EXPECT_EQ(ctl({"pins", "1"}).rfind(R"(0 {"present":true,"lpmode":true,"reset":false,)", 0), 0u);
    qsfp1.i2c_write(0x50, 86, bytes{0x0f});
    EXPECT_EQ(ctl({"peek", "1", "86", "1"}), R"(0 "0f")");
    EXPECT_EQ(ctl({"poke", "1", "88", "5a"}), "0 true");
    bytes b(1);
    qsfp1.i2c_read(0x50, 88, b);
    EXPECT_EQ(b[0], 0x5a);
    EXPECT_EQ(error_of([&] { (void)qsfp1.sfp_signal_get(cage::sfp_signal::los); }), ENOTSUP);

    EXPECT_EQ(ctl({"fault", R"({"cage":1,"kind":"errno","errno":5,"count":2})"}), "0 true");
    EXPECT_EQ(error_of([&] { qsfp1.i2c_read(0x50, 0, b); }), EIO);
    EXPECT_EQ(error_of([&] { qsfp1.i2c_write(0x50, 0, b); }), EIO);
    EXPECT_EQ(error_of([&] { qsfp1.i2c_read(0x50, 0, b); }), 0);

    ASSERT_EQ(ctl({"insert", "2", "qsa_sfpplus_10g_sr"}), "0 true");
    auto qsfp2 = open_cage(2);
    qsfp2.sfp_signal_set(cage::sfp_signal::tx_disable, true);
    EXPECT_TRUE(qsfp2.sfp_signal_get(cage::sfp_signal::tx_disable));
    EXPECT_TRUE(service->cage(2).sfp_signal_get(cage::sfp_signal::tx_disable));
    // Bad control requests are refused clearly.
    EXPECT_EQ(ctl({"insert", "9", "qsfp28_100g_lr4"}),
              "1 qsfp-emu ctl: Invalid params: 'cage' must be below 4 (error -32602)");
    const auto no_profile = ctl({"insert", "0", "no_such_profile"});
    EXPECT_EQ(no_profile.rfind("1 qsfp-emu ctl: Cannot insert no_such_profile: profile ", 0), 0u);
    EXPECT_EQ(ctl({"peek", "0", "0"}), "1 qsfp-emu ctl: No module in the cage (error -6)");
    // CMIS banked pages by page * 128 + byte: the FR4's staged (10h 145) and active (11h 206)
    // control sets, bank 0 by default or named.
    ASSERT_EQ(ctl({"insert", "0", "qsfpdd_400g_fr4"}), "0 true");
    EXPECT_EQ(ctl({"peek", "0", "2193", "2"}), R"(0 "10 10")");
    EXPECT_EQ(ctl({"peek", "0", "2382", "8", "0"}), R"(0 "10 10 10 10 10 10 10 10")");
    ASSERT_EQ(ctl({"remove", "0"}), "0 true");
    ASSERT_EQ(ctl({"insert", "0", "qsfp28_100g_lr4"}), "0 true");
    EXPECT_EQ(ctl({"fault", R"({"cage":0,"kind":"sideways"})"}),
              "1 qsfp-emu ctl: Invalid params: 'kind' must be nack, errno, at, flap, stick, "
              "module_fault, no_low_power, stall_dp_init, stall_tuning, lock_flap, coherent or "
              "clear (error -32602)");
    EXPECT_EQ(ctl({"frobnicate"}), "2 qsfp-emu ctl: unknown method frobnicate");
    EXPECT_EQ(ctl({"pins", "0", "extra"}), "2 qsfp-emu ctl: too many arguments for pins");
    std::ostringstream sink;
    EXPECT_EQ(emu::run_ctl({"--dir", (dir / "nowhere").string(), "counters"}, sink, sink), 3);
    // The hex forms of peek and poke.
    EXPECT_EQ(from_hex("0a FF\n10"), (bytes{0x0a, 0xff, 0x10}));
    EXPECT_EQ(from_hex("0aff10"), (bytes{0x0a, 0xff, 0x10}));
    EXPECT_THROW(from_hex("0a f"), std::invalid_argument);
    EXPECT_THROW(from_hex("zz"), std::invalid_argument);
    EXPECT_EQ(to_hex(bytes{0, 1, 0xab}), "00 01 ab");
}

TEST_F(EmuService, CoherentFaultsAndBerValuesAreSetThroughTheControlSocket) {
    ASSERT_EQ(ctl({"insert", "0", "qsfpdd_400zr"}), "0 true");
    ASSERT_EQ(ctl({"insert", "1", "qsfp28_100g_lr4"}), "0 true");
    clock->advance(10s);
    auto& module = *service->cage(0).module();
    auto& coherent = *module.coherent();
    EXPECT_EQ(ctl({"ber", "0", "3e-3", "1e-9"}), R"(0 {"pre_fec":0.003,"prbs":1e-9})");
    EXPECT_DOUBLE_EQ(coherent.pre_fec_ber(), 3e-3);
    EXPECT_EQ(ctl({"ber", R"({"cage":0,"uncorrectable_per_s":"x"})"}),
              "1 qsfp-emu ctl: Invalid params: 'uncorrectable_per_s' must be a number >= 0 "
              "(error -32602)");
    EXPECT_EQ(ctl({"ber", "1", "1e-3"}), "1 qsfp-emu ctl: Not a coherent module (error -22)");
    // The module is ready and locked: a flap on the TX lock only, then a module that stays ready.
    ASSERT_EQ(coherent.locks(), 0x03);
    EXPECT_EQ(ctl({"fault", R"({"cage":0,"kind":"lock_flap","pattern":"0","locks":"tx"})"}),
              "0 true");
    EXPECT_EQ(coherent.locks(), 0x01);
    EXPECT_EQ(ctl({"fault", "0", "no_low_power"}), "0 true");
    service->cage(0).pin_set(cage::line::lpmode, true);
    clock->advance(5s);
    EXPECT_EQ(module.cmis_module_state(), cage::cmis_module_state::ready);
    EXPECT_EQ(ctl({"fault", "0", "stall_tuning"}), "0 true");
    EXPECT_EQ(ctl({"poke", "0", "2440", "00 03"}), "0 true");  // page 12h byte 136 raw: no tuning
    EXPECT_FALSE(coherent.tuning());
    EXPECT_EQ(ctl({"fault", "1", "stall_tuning"}),
              "1 qsfp-emu ctl: Not a coherent module (error -22)");
    EXPECT_EQ(ctl({"fault", "0", "stall_dp_init"}), "0 true");
    // Clear undoes them all: the pin now takes the module to low power.
    EXPECT_EQ(ctl({"fault", "0", "clear"}), "0 true");
    clock->advance(5s);
    EXPECT_EQ(module.cmis_module_state(), cage::cmis_module_state::low_pwr);
    EXPECT_EQ(coherent.locks(), 0x00);
}

TEST_F(EmuService, CoherentFaultFlagsAreSetAndClearedPerBank) {
    ASSERT_EQ(ctl({"insert", "0", "qsfpdd_400zr_plus"}), "0 true");
    clock->advance(10s);
    auto qsfp0 = open_cage(0);
    auto faults = [&](std::uint8_t bank) {
        qsfp0.i2c_write(0x50, 126, bytes{bank, 0xC8});
        bytes b(1);
        qsfp0.i2c_read(0x50, 128, b);
        return int{b[0]};
    };
    EXPECT_EQ(ctl({"fault", R"({"cage":0,"kind":"coherent","flag":"rx_local"})"}), "0 true");
    EXPECT_EQ(ctl({"fault", R"({"cage":0,"kind":"coherent","flag":"tx_remote","bank":1})"}),
              "0 true");
    EXPECT_EQ(faults(0), 0x08);
    EXPECT_EQ(faults(1), 0x01);
    EXPECT_EQ(ctl({"fault", R"({"cage":0,"kind":"coherent","flag":"rx_local","on":false})"}),
              "0 true");
    EXPECT_EQ(faults(0), 0x00);
    EXPECT_EQ(ctl({"fault", R"({"cage":0,"kind":"clear"})"}), "0 true");
    EXPECT_EQ(faults(1), 0x00);
    EXPECT_EQ(ctl({"fault", R"({"cage":0,"kind":"coherent","flag":"sideways"})"}),
              "1 qsfp-emu ctl: Invalid params: 'flag' must be tx_remote, tx_local, rx_remote or "
              "rx_local (error -32602)");
    ASSERT_EQ(ctl({"insert", "1", "qsfpdd_400zr"}), "0 true");
    EXPECT_EQ(ctl({"fault", R"({"cage":1,"kind":"coherent","flag":"rx_local"})"}),
              "1 qsfp-emu ctl: The module has no page C8h (error -95)");
}

}  // namespace
