#include "linux_i2c_transport.hpp"

#include <fcntl.h>
#include <linux/gpio.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include <gtest/gtest.h>

#include "errno_of.hpp"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "qsfp_device.hpp"
#include "temp_dir.hpp"

namespace qsfpd::cage {
namespace {

using qsfpd::test::error_of;
using qsfpd::test::message_of;

std::string hex(unsigned v) {
    char b[8];
    std::snprintf(b, sizeof b, "%02x", v);
    return b;
}

// A fake bus and GPIO chip behind the syscall interface. It records what a real kernel would be
// given, as text: each I2C_RDWR as its messages ("w50:94 r50#4": write of 94h to 50h, then a
// read of 4 bytes), each line-handle request, each change of a line's level.
class fake_io final : public linux_io {
  public:
    std::set<std::string> paths{"/dev/i2c-5", "/dev/gpiochip2", "/dev/gpiochip3"};
    std::map<std::uint16_t, std::array<std::uint8_t, 256>> memory;  // per device address
    std::map<std::string, bool> level;  // physical level per line, "chip:offset"
    std::vector<std::string> transfers, requests, changes;
    std::map<int, std::pair<std::string, std::uint32_t>> fds;  // open: path or line, handle flags
    int i2c_errno = 0;
    int open_errno = 0;

    int open(const std::string& path, int flags) override {
        if (open_errno) return -open_errno;
        if (!paths.contains(path)) return -ENOENT;
        return (flags & O_ACCMODE) != O_RDWR ? -EACCES : add(path, 0);
    }
    int close(int fd) override { return fds.erase(fd) ? 0 : -EBADF; }

    int ioctl(int fd, unsigned long request, void* argument) override {
        if (!fds.contains(fd)) return -EBADF;
        const auto [name, flags] = fds[fd];
        if (request == I2C_RDWR) return i2c(*static_cast<i2c_rdwr_ioctl_data*>(argument));
        if (request == GPIO_GET_LINEHANDLE_IOCTL)
            return take_line(name, *static_cast<gpiohandle_request*>(argument));
        const bool low = flags & GPIOHANDLE_REQUEST_ACTIVE_LOW;
        auto& value = static_cast<gpiohandle_data*>(argument)->values[0];
        if (flags != 0 && request == GPIOHANDLE_GET_LINE_VALUES_IOCTL) {
            value = level[name] != low;
            return 0;
        }
        if (flags == 0 || request != GPIOHANDLE_SET_LINE_VALUES_IOCTL) return -ENOTTY;
        if (!(flags & GPIOHANDLE_REQUEST_OUTPUT)) return -EPERM;
        drive(name, (value != 0) != low);
        return 0;
    }

  private:
    int add(const std::string& name, std::uint32_t flags) {
        fds[next_fd_] = {name, flags};
        return next_fd_++;
    }

    void drive(const std::string& line, bool value) {
        if (level[line] != value) changes.push_back(line + "=" + hex(value));
        level[line] = value;
    }

    int i2c(const i2c_rdwr_ioctl_data& d) {
        std::string t;
        for (std::uint32_t i = 0; i < d.nmsgs; ++i) {
            const i2c_msg& m = d.msgs[i];
            const bool rd = m.flags == I2C_M_RD;
            t += (i ? " " : "") +
                 std::string(m.flags & ~I2C_M_RD ? "?"
                             : rd                ? "r"
                                                 : "w") +
                 hex(m.addr) + (rd ? "#" + std::to_string(m.len) : ":");
            for (std::uint16_t j = 0; !rd && j < m.len; ++j)
                t += hex(m.buf[j]);
        }
        transfers.push_back(t);
        if (i2c_errno) return -i2c_errno;
        const i2c_msg& w = d.msgs[0];
        if (w.flags & I2C_M_RD || w.len < 1) return -EINVAL;
        const auto mem = memory.find(w.addr);
        if (mem == memory.end()) return -ENXIO;  // nobody acknowledges the address
        if (d.nmsgs == 1)
            std::copy(w.buf + 1, w.buf + w.len, mem->second.begin() + w.buf[0]);
        else
            std::copy_n(mem->second.begin() + w.buf[0], d.msgs[1].len, d.msgs[1].buf);
        return static_cast<int>(d.nmsgs);
    }

    int take_line(const std::string& chip, gpiohandle_request& req) {
        if (req.lines != 1) return -EINVAL;
        const auto line = chip + ":" + std::to_string(req.lineoffsets[0]);
        for (const auto& [fd, file] : fds)
            if (file.first == line) return -EBUSY;
        // Flags 01 input, 02 output, 04 active low; then the default value and the consumer.
        requests.push_back(line + " " + hex(req.flags) + " =" + hex(req.default_values[0]) + " " +
                           req.consumer_label);
        if (req.flags & GPIOHANDLE_REQUEST_OUTPUT)
            drive(line,
                  (req.default_values[0] != 0) != bool(req.flags & GPIOHANDLE_REQUEST_ACTIVE_LOW));
        req.fd = add(line, req.flags);
        return 0;
    }

    int next_fd_ = 10;
};

constexpr const char* board_json = R"({"cages": {
  "/dev/qsfp3": {"i2c": "/dev/i2c-5", "gpiochip": "/dev/gpiochip2",
    "lines": {"lpmode": 12, "reset": 13, "present": 14, "led_tx_yellow": 20, "led_tx_green": 21,
              "led_rx_yellow": 22, "led_rx_green": 23},
    "active_low": ["reset", "present"],
    "sfp": {"gpiochip": "/dev/gpiochip3", "active_low": ["los"],
            "lines": {"tx_fault": 1, "tx_disable": 2, "los": 3, "rate_select": 4}}},
  "/dev/qsfp4": {"i2c": "/dev/i2c-5", "gpiochip": "/dev/gpiochip2",
                 "lines": {"lpmode": 30, "reset": 31, "present": 32}}}})";

class linux_transport_test : public ::testing::Test {
  protected:
    linux_transport_test() : io(std::make_shared<fake_io>()) {
        for (int i = 0; i < 256; ++i)
            io->memory[0x50][i] = static_cast<std::uint8_t>(i ^ 0x5A);
        io->memory[0x51].fill(0xA2);
    }
    std::unique_ptr<linux_i2c_transport> make(const char* cage = "/dev/qsfp3") {
        return std::make_unique<linux_i2c_transport>(parse_board_file(board_json, cage), io);
    }
    std::shared_ptr<fake_io> io;
};

TEST(board_file, sfp_lines_default_to_the_cage_chip_and_errors_name_the_problem) {
    const auto w = parse_board_file(
        R"({"cages": {"/dev/q": {"i2c": "/dev/i2c-1", "gpiochip": "/dev/gpiochip0",
            "lines": {}, "sfp": {"lines": {"los": 7}}}}})",
        "/dev/q");
    ASSERT_TRUE(w.sfp.has_value());
    EXPECT_EQ(w.sfp->gpiochip, "/dev/gpiochip0");

    const std::pair<std::string, const char*> cases[] = {
        {board_json, "not in the board file"},
        {R"({"cages": )", "board file:"},
        {"{}", "cages"},
        {R"({"cages": {"/dev/q": {"gpiochip": "/dev/gpiochip0"}}})", "i2c"},
        {R"({"cages": {"/dev/q": {"i2c": "/dev/i2c-1"}}})", "gpiochip"},
        {R"({"cages": {"/dev/q": {"i2c": "a", "gpiochip": "b", "lines": {"reset": -1}}}})",
         "reset"},
        {R"({"cages": {"/dev/q": {"i2c": "a", "gpiochip": "b", "active_low": ["x"]}}})",
         "unknown line x"}};
    for (const auto& [json, fragment] : cases) {
        const auto message = message_of([&text = json] { (void)parse_board_file(text, "/dev/q"); });
        EXPECT_NE(message.find(fragment), std::string::npos) << message;
    }
}

TEST_F(linux_transport_test,
       i2c_reads_are_one_combined_transfer_errors_carry_the_errno_and_nothing_leaks) {
    auto t = make();
    std::array<std::uint8_t, 4> out{};
    t->i2c_read(module_address, 148, out);
    EXPECT_EQ(out, (std::array<std::uint8_t, 4>{148 ^ 0x5A, 149 ^ 0x5A, 150 ^ 0x5A, 151 ^ 0x5A}));
    t->i2c_read(sfp_diagnostics_address, 96, std::span(out).first(1));
    EXPECT_EQ(out[0], 0xA2);
    t->i2c_write(module_address, 126, std::array<std::uint8_t, 2>{0x01, 0x11});
    EXPECT_EQ(io->transfers,
              (std::vector<std::string>{"w50:94 r50#4", "w51:60 r51#1", "w50:7e0111"}));
    // Bus errors carry the errno.
    io->i2c_errno = EREMOTEIO;
    EXPECT_EQ(error_of([&] { t->i2c_read(module_address, 0, out); }), EREMOTEIO);
    EXPECT_EQ(error_of([&] { t->i2c_write(module_address, 0, out); }), EREMOTEIO);
    io->i2c_errno = 0;
    io->memory.erase(0x50);  // module pulled: no acknowledge
    EXPECT_EQ(error_of([&] { t->i2c_read(module_address, 0, out); }), ENXIO);
    // Past byte 255 never reaches the bus.
    const auto before = io->transfers.size();
    EXPECT_EQ(error_of([&] { t->i2c_read(module_address, 253, out); }), EINVAL);
    EXPECT_EQ(io->transfers.size(), before);
    // A line owned elsewhere is EBUSY, and everything opened is closed.
    auto other = make();
    EXPECT_TRUE(other->module_present());
    EXPECT_EQ(error_of([&] { (void)t->module_present(); }), EBUSY);
    t->pin_set(line::lpmode, true);
    t->sfp_signal_set(sfp_signal::tx_disable, false);
    t.reset();
    other.reset();
    EXPECT_TRUE(io->fds.empty());
    // So is everything opened before a failed open, and the open's errno is the error.
    io->paths.erase("/dev/gpiochip3");
    EXPECT_EQ(error_of([&] { (void)make(); }), ENOENT);
    EXPECT_TRUE(io->fds.empty());
    io->open_errno = EACCES;
    EXPECT_EQ(error_of([&] { (void)make("/dev/qsfp4"); }), EACCES);
}

TEST_F(linux_transport_test, cage_and_sfp_lines_map_to_the_board_file_with_their_polarity) {
    auto t = make();
    io->level["/dev/gpiochip2:14"] = false;  // ModPrsL pulled low: module in
    EXPECT_TRUE(t->module_present());
    io->level["/dev/gpiochip2:14"] = true;
    EXPECT_FALSE(t->module_present());
    // One request, its handle kept.
    EXPECT_EQ(io->requests, std::vector<std::string>{"/dev/gpiochip2:14 05 =00 qsfpd"});
    io->level["/dev/gpiochip2:13"] = true;  // ResetL high: not in reset
    EXPECT_FALSE(t->pin_get(line::reset));  // active low: "reset" is false
    t->pin_set(line::reset, true);
    EXPECT_TRUE(t->pin_get(line::reset));
    // The output was requested at the level the line had (logical "not in reset"), so the only
    // level change is the one asked for: taking the output did not pulse it.
    EXPECT_EQ(io->requests.back(), "/dev/gpiochip2:13 06 =00 qsfpd");
    EXPECT_EQ(io->changes, std::vector<std::string>{"/dev/gpiochip2:13=00"});
    // LEDs and SFP signals map to their lines.
    io->changes.clear();
    for (auto l :
         {line::tx_led_yellow, line::tx_led_green, line::rx_led_yellow, line::rx_led_green})
        t->pin_set(l, true);
    EXPECT_EQ(io->changes,
              (std::vector<std::string>{"/dev/gpiochip2:20=01", "/dev/gpiochip2:21=01",
                                        "/dev/gpiochip2:22=01", "/dev/gpiochip2:23=01"}));
    EXPECT_EQ(error_of([&] { t->pin_set(2, true); }), EINVAL);
    auto bare = make("/dev/qsfp4");
    EXPECT_EQ(error_of([&] { bare->pin_set(line::tx_led_green, true); }), ENOTSUP);
    EXPECT_EQ(error_of([&] { (void)bare->sfp_signal_get(sfp_signal::los); }), ENOTSUP);
    io->changes.clear();
    io->level["/dev/gpiochip3:1"] = true;
    EXPECT_TRUE(t->sfp_signal_get(sfp_signal::tx_fault));
    io->level["/dev/gpiochip3:3"] = false;  // LOS wired active low
    EXPECT_TRUE(t->sfp_signal_get(sfp_signal::los));
    t->sfp_signal_set(sfp_signal::tx_disable, true);
    t->sfp_signal_set(sfp_signal::rate_select, true);
    EXPECT_EQ(io->changes,
              (std::vector<std::string>{"/dev/gpiochip3:2=01", "/dev/gpiochip3:4=01"}));
    EXPECT_EQ(error_of([&] { t->sfp_signal_set(sfp_signal::los, true); }), EINVAL);
}

// $QSFPD_ROOT at a directory of its own, where the board file and the device-tree markers are
// looked up.
TEST(root, the_board_file_and_the_platform_markers_are_found_under_it) {
    const qsfpd::test::temp_dir root("cage-root");
    std::filesystem::create_directories(root.path() / "etc/qsfpd");
    std::filesystem::create_directories(root.path() / "proc/device-tree");
    ::setenv("QSFPD_ROOT", root.path().c_str(), 1);
    EXPECT_NE(message_of([] { qsfp_device device("/dev/qsfp3"); }).find("board file"),
              std::string::npos);
    root.write("etc/qsfpd/board.json", board_json);
    auto io = std::make_shared<fake_io>();
    io->memory[0x50].fill(0x0D);
    qsfp_device device("/dev/qsfp3", linux_i2c_transport::from_board_file("/dev/qsfp3", io));
    EXPECT_EQ(device.read_byte(0), 0x0D);
    // A device path alone goes to the Linux transport, which reports that the board file's i2c
    // device cannot be opened.
    root.write("etc/qsfpd/board.json",
               R"({"cages": {"/dev/qsfp3": {"i2c": "/no-such-i2c", "gpiochip": "/dev/x"}}})");
    EXPECT_EQ(error_of([&] { qsfp_device device("/dev/qsfp3"); }), ENOENT);
    // The platform markers come from the device tree.
    for (const auto& [name, marker] : {std::pair{"zelt20", &qsfp_device::is_qsfp_zelt20},
                                       {"zelt30", &qsfp_device::is_qsfp_zelt30},
                                       {"zelt40", &qsfp_device::is_qsfp_zelt40},
                                       {"zelt50", &qsfp_device::is_qsfp_zelt50}}) {
        EXPECT_FALSE(marker()) << name;  // the other markers present do not count
        root.write(std::string("proc/device-tree/") + name, std::string(1, '\0'));
        EXPECT_TRUE(marker()) << name;
    }
    ::unsetenv("QSFPD_ROOT");
}

}  // namespace
}  // namespace qsfpd::cage
