#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <map>
#include <mutex>
#include <thread>

#include "../support/errno_of.hpp"
#include "hex_bytes.hpp"
#include "remote_cage_server.hpp"
#include "remote_cage_transport.hpp"

namespace qsfpd::test {

// A cage with 256 bytes at 0x50 and a few lines; it can be told to fail with an errno.
class memory_cage : public cage::qsfp_transport {
  public:
    void i2c_read(std::uint8_t address, std::uint8_t offset, std::span<std::uint8_t> out) override {
        std::lock_guard lock(mutex);
        check(address);
        for (std::size_t i = 0; i < out.size(); ++i)
            out[i] = memory[(offset + i) & 0xff];
    }
    void i2c_write(std::uint8_t address, std::uint8_t offset,
                   std::span<const std::uint8_t> data) override {
        std::lock_guard lock(mutex);
        check(address);
        for (std::size_t i = 0; i < data.size(); ++i)
            memory[(offset + i) & 0xff] = data[i];
    }
    bool pin_get(unsigned line) override {
        std::lock_guard lock(mutex);
        return lines[line];
    }
    void pin_set(unsigned line, bool value) override {
        std::lock_guard lock(mutex);
        lines[line] = value;
    }
    bool module_present() override { return true; }
    bool sfp_signal_get(cage::sfp_signal s) override {
        std::lock_guard lock(mutex);
        if (!converter) throw std::system_error(ENOTSUP, std::generic_category(), "no converter");
        return signals[s];
    }
    void sfp_signal_set(cage::sfp_signal s, bool v) override {
        std::lock_guard lock(mutex);
        if (!converter) throw std::system_error(ENOTSUP, std::generic_category(), "no converter");
        signals[s] = v;
    }

    void check(std::uint8_t address) {
        if (fail_errno) throw std::system_error(fail_errno, std::generic_category(), "i2c");
        if (address != 0x50) throw std::system_error(ENXIO, std::generic_category(), "no device");
    }

    std::mutex mutex;
    std::array<std::uint8_t, 256> memory{};
    std::map<unsigned, bool> lines;
    std::map<cage::sfp_signal, bool> signals;
    bool converter = false;
    int fail_errno = 0;
};

}  // namespace qsfpd::test

namespace {
using namespace qsfpd;

class RemoteCage : public ::testing::Test {
  protected:
    void SetUp() override {
        dir =
            std::filesystem::temp_directory_path() / ("qsfpd-remote-" + std::to_string(::getpid()));
        socket = (dir / "qsfp3").string();
        server = std::make_unique<device_handler_api>(socket, 0, true, device_handler_api::limits{},
                                                      false);
        remote::serve_cage(*server, cage);
        thread = std::thread([this] { server->start(); });
    }
    void TearDown() override {
        server->stop();
        thread.join();
        std::filesystem::remove_all(dir);
    }

    std::shared_ptr<test::memory_cage> cage = std::make_shared<test::memory_cage>();
    std::filesystem::path dir;
    std::string socket;
    std::unique_ptr<device_handler_api> server;
    std::thread thread;
};

TEST_F(RemoteCage, TransfersAndLinesCrossTheSocket) {
    remote::remote_cage_transport transport(socket);
    const std::vector<std::uint8_t> data{0x11, 0x07, 0x02};
    transport.i2c_write(0x50, 254, data);
    EXPECT_EQ(cage->memory[254], 0x11);
    EXPECT_EQ(cage->memory[0], 0x02);  // the write wrapped as the memory does
    std::array<std::uint8_t, 4> out{};
    transport.i2c_read(0x50, 254, out);
    EXPECT_EQ(to_hex(out), "11 07 02 00");
    transport.pin_set(1, true);
    EXPECT_TRUE(cage->lines[1]);
    EXPECT_TRUE(transport.pin_get(1));
    EXPECT_FALSE(transport.pin_get(4));
    EXPECT_TRUE(transport.module_present());
}

TEST_F(RemoteCage, ErrnoOfTheCageComesBack) {
    remote::remote_cage_transport transport(socket);
    std::array<std::uint8_t, 1> out{};
    using qsfpd::test::error_of;
    EXPECT_EQ(error_of([&] { transport.i2c_read(0x51, 0, out); }), ENXIO);
    cage->fail_errno = EIO;
    EXPECT_EQ(error_of([&] { transport.i2c_read(0x50, 0, out); }), EIO);
    EXPECT_EQ(error_of([&] { transport.sfp_signal_get(cage::sfp_signal::los); }), ENOTSUP);
    cage->converter = true;
    transport.sfp_signal_set(cage::sfp_signal::tx_disable, true);
    EXPECT_TRUE(transport.sfp_signal_get(cage::sfp_signal::tx_disable));
    remote::remote_cage_transport nowhere((dir / "qsfp9").string());
    EXPECT_EQ(error_of([&] { nowhere.pin_get(0); }), ECONNREFUSED);
}

TEST(HexBytes, RoundTripAndRefusals) {
    EXPECT_EQ(from_hex("0a FF\n10"), (std::vector<std::uint8_t>{0x0a, 0xff, 0x10}));
    EXPECT_EQ(from_hex("0aff10"), (std::vector<std::uint8_t>{0x0a, 0xff, 0x10}));
    EXPECT_THROW(from_hex("0a f"), std::invalid_argument);
    EXPECT_THROW(from_hex("zz"), std::invalid_argument);
    const std::vector<std::uint8_t> bytes{0, 1, 0xab};
    EXPECT_EQ(from_hex(to_hex(bytes)), bytes);
}

}  // namespace
