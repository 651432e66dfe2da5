#include "linux_i2c_transport.hpp"

#include <fcntl.h>
#include <linux/gpio.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "errno_of.hpp"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "qsfp_device.hpp"

namespace qsfpd::cage {
namespace {

// A fake bus and GPIO chip behind the syscall interface. It checks what a real kernel would be
// given: the i2c_rdwr_ioctl_data of each transfer and the line-handle requests.
class fake_io final : public linux_io {
  public:
    struct i2c_transfer {
        std::vector<std::uint16_t> addrs;
        std::vector<std::uint16_t> flags;
        std::vector<std::uint16_t> lens;
        std::vector<std::uint8_t> written;  // bytes of the write message
    };
    struct line_request {
        std::string chip;
        unsigned offset;
        std::uint32_t flags;
        std::uint8_t default_value;
        std::string label;
        int fd;
    };

    std::set<std::string> paths{"/dev/i2c-5", "/dev/gpiochip2", "/dev/gpiochip3"};
    std::map<std::uint16_t, std::array<std::uint8_t, 256>> memory;  // per device address
    std::map<std::pair<std::string, unsigned>, bool> physical;      // line levels
    std::vector<i2c_transfer> transfers;
    std::vector<line_request> requests;
    std::vector<std::pair<std::string, bool>> level_changes;  // chip:line -> new level
    std::set<int> open_fds;
    int i2c_errno = 0;
    int open_errno = 0;

    int open(const std::string& path, int flags) override {
        if (open_errno) return -open_errno;
        if (!paths.contains(path)) return -ENOENT;
        if ((flags & O_ACCMODE) != O_RDWR) return -EACCES;
        const int fd = next_fd_++;
        fd_path_[fd] = path;
        open_fds.insert(fd);
        return fd;
    }

    int close(int fd) override { return open_fds.erase(fd) ? 0 : -EBADF; }

    int ioctl(int fd, unsigned long request, void* argument) override {
        if (!open_fds.contains(fd)) return -EBADF;
        if (request == I2C_RDWR) return i2c(static_cast<i2c_rdwr_ioctl_data*>(argument));
        if (request == GPIO_GET_LINEHANDLE_IOCTL)
            return take_line(fd, static_cast<gpiohandle_request*>(argument));
        if (request == GPIOHANDLE_GET_LINE_VALUES_IOCTL ||
            request == GPIOHANDLE_SET_LINE_VALUES_IOCTL) {
            auto it = handles_.find(fd);
            if (it == handles_.end()) return -ENOTTY;
            auto& h = it->second;
            auto* data = static_cast<gpiohandle_data*>(argument);
            bool& level = physical[{h.chip, h.offset}];
            if (request == GPIOHANDLE_GET_LINE_VALUES_IOCTL) {
                data->values[0] = (level != h.active_low) ? 1 : 0;
            } else {
                if (!h.output) return -EPERM;
                set_level(h.chip, h.offset, (data->values[0] != 0) != h.active_low);
            }
            return 0;
        }
        return -ENOTTY;
    }

    bool level(const std::string& chip, unsigned offset) { return physical[{chip, offset}]; }

  private:
    struct handle_state {
        std::string chip;
        unsigned offset;
        bool output;
        bool active_low;
    };

    void set_level(const std::string& chip, unsigned offset, bool value) {
        bool& level = physical[{chip, offset}];
        if (level != value) level_changes.emplace_back(chip + ":" + std::to_string(offset), value);
        level = value;
    }

    int i2c(i2c_rdwr_ioctl_data* data) {
        i2c_transfer t;
        for (std::uint32_t i = 0; i < data->nmsgs; ++i) {
            const i2c_msg& m = data->msgs[i];
            t.addrs.push_back(m.addr);
            t.flags.push_back(m.flags);
            t.lens.push_back(m.len);
            if (!(m.flags & I2C_M_RD)) t.written.assign(m.buf, m.buf + m.len);
        }
        transfers.push_back(t);
        if (i2c_errno) return -i2c_errno;
        const i2c_msg& first = data->msgs[0];
        if (first.flags & I2C_M_RD || first.len < 1) return -EINVAL;
        auto mem = memory.find(first.addr);
        if (mem == memory.end()) return -ENXIO;  // nobody acknowledges the address
        const std::uint8_t offset = first.buf[0];
        if (data->nmsgs == 1) {
            for (std::uint16_t i = 1; i < first.len; ++i)
                mem->second[offset + i - 1] = first.buf[i];
        } else {
            const i2c_msg& second = data->msgs[1];
            for (std::uint16_t i = 0; i < second.len; ++i)
                second.buf[i] = mem->second[offset + i];
        }
        return static_cast<int>(data->nmsgs);
    }

    int take_line(int chip_fd, gpiohandle_request* req) {
        if (req->lines != 1) return -EINVAL;
        const std::string chip = fd_path_[chip_fd];
        const unsigned offset = req->lineoffsets[0];
        for (const auto& [fd, h] : handles_)
            if (open_fds.contains(fd) && h.chip == chip && h.offset == offset) return -EBUSY;
        const int fd = next_fd_++;
        open_fds.insert(fd);
        const bool output = req->flags & GPIOHANDLE_REQUEST_OUTPUT;
        const bool active_low = req->flags & GPIOHANDLE_REQUEST_ACTIVE_LOW;
        handles_[fd] = {chip, offset, output, active_low};
        requests.push_back(
            {chip, offset, req->flags, req->default_values[0], req->consumer_label, fd});
        if (output) set_level(chip, offset, (req->default_values[0] != 0) != active_low);
        req->fd = fd;
        return 0;
    }

    int next_fd_ = 10;
    std::map<int, std::string> fd_path_;
    std::map<int, handle_state> handles_;
};

constexpr const char* board_json = R"({
  "cages": {
    "/dev/qsfp3": {
      "i2c": "/dev/i2c-5",
      "gpiochip": "/dev/gpiochip2",
      "lines": {"lpmode": 12, "reset": 13, "present": 14,
                "led_tx_yellow": 20, "led_tx_green": 21, "led_rx_yellow": 22, "led_rx_green": 23},
      "active_low": ["reset", "present"],
      "sfp": {"gpiochip": "/dev/gpiochip3",
              "lines": {"tx_fault": 1, "tx_disable": 2, "los": 3, "rate_select": 4},
              "active_low": ["los"]}
    },
    "/dev/qsfp4": {
      "i2c": "/dev/i2c-5",
      "gpiochip": "/dev/gpiochip2",
      "lines": {"lpmode": 30, "reset": 31, "present": 32}
    }
  }
})";

using qsfpd::test::error_of;

class linux_transport_test : public ::testing::Test {
  protected:
    linux_transport_test() : io(std::make_shared<fake_io>()) {
        io->memory[0x50].fill(0);
        for (int i = 0; i < 256; ++i)
            io->memory[0x50][i] = static_cast<std::uint8_t>(i ^ 0x5A);
        io->memory[0x51].fill(0xA2);
    }
    std::unique_ptr<linux_i2c_transport> make(const char* cage = "/dev/qsfp3") {
        return std::make_unique<linux_i2c_transport>(parse_board_file(board_json, cage), io);
    }
    std::shared_ptr<fake_io> io;
};

TEST(board_file, parses_a_cage_and_its_converter_lines) {
    const auto w = parse_board_file(board_json, "/dev/qsfp3");
    EXPECT_EQ(w.i2c, "/dev/i2c-5");
    EXPECT_EQ(w.cage.gpiochip, "/dev/gpiochip2");
    EXPECT_EQ(w.cage.lines.at("lpmode"), 12u);
    EXPECT_EQ(w.cage.lines.at("led_rx_green"), 23u);
    EXPECT_TRUE(w.cage.active_low.contains("reset"));
    EXPECT_FALSE(w.cage.active_low.contains("lpmode"));
    ASSERT_TRUE(w.sfp.has_value());
    EXPECT_EQ(w.sfp->gpiochip, "/dev/gpiochip3");
    EXPECT_EQ(w.sfp->lines.at("rate_select"), 4u);
    EXPECT_FALSE(parse_board_file(board_json, "/dev/qsfp4").sfp.has_value());
}

TEST(board_file, sfp_lines_default_to_the_cage_chip) {
    const auto w = parse_board_file(
        R"({"cages": {"/dev/q": {"i2c": "/dev/i2c-1", "gpiochip": "/dev/gpiochip0",
            "lines": {}, "sfp": {"lines": {"los": 7}}}}})",
        "/dev/q");
    ASSERT_TRUE(w.sfp.has_value());
    EXPECT_EQ(w.sfp->gpiochip, "/dev/gpiochip0");
}

TEST(board_file, errors_name_the_problem) {
    auto message = [](std::string_view json, const std::string& cage) {
        try {
            (void)parse_board_file(json, cage);
        } catch (const std::runtime_error& e) {
            return std::string(e.what());
        }
        return std::string("no error");
    };
    EXPECT_NE(message(board_json, "/dev/qsfp9").find("not in the board file"), std::string::npos);
    EXPECT_NE(message("{\"cages\": ", "/dev/q").find("board file:"), std::string::npos);
    EXPECT_NE(message("{}", "/dev/q").find("cages"), std::string::npos);
    EXPECT_NE(
        message(R"({"cages": {"/dev/q": {"gpiochip": "/dev/gpiochip0"}}})", "/dev/q").find("i2c"),
        std::string::npos);
    EXPECT_NE(message(R"({"cages": {"/dev/q": {"i2c": "/dev/i2c-1"}}})", "/dev/q").find("gpiochip"),
              std::string::npos);
    EXPECT_NE(
        message(R"({"cages": {"/dev/q": {"i2c": "a", "gpiochip": "b", "lines": {"reset": -1}}}})",
                "/dev/q")
            .find("reset"),
        std::string::npos);
    EXPECT_NE(
        message(R"({"cages": {"/dev/q": {"i2c": "a", "gpiochip": "b", "active_low": ["x"]}}})",
                "/dev/q")
            .find("unknown line x"),
        std::string::npos);
}

TEST_F(linux_transport_test, reads_are_one_combined_write_then_read_transfer) {
    auto t = make();
    std::array<std::uint8_t, 4> out{};
    t->i2c_read(module_address, 148, out);
    ASSERT_EQ(io->transfers.size(), 1u);
    const auto& x = io->transfers[0];
    ASSERT_EQ(x.addrs.size(), 2u);
    EXPECT_EQ(x.addrs[0], 0x50);
    EXPECT_EQ(x.addrs[1], 0x50);
    EXPECT_EQ(x.flags[0], 0);
    EXPECT_EQ(x.flags[1], I2C_M_RD);
    EXPECT_EQ(x.lens[0], 1);
    EXPECT_EQ(x.lens[1], 4);
    EXPECT_EQ(x.written, std::vector<std::uint8_t>{148});
    EXPECT_EQ(out, (std::array<std::uint8_t, 4>{148 ^ 0x5A, 149 ^ 0x5A, 150 ^ 0x5A, 151 ^ 0x5A}));

    std::array<std::uint8_t, 1> a2{};
    t->i2c_read(sfp_diagnostics_address, 96, a2);
    EXPECT_EQ(io->transfers.back().addrs[0], 0x51);
    EXPECT_EQ(a2[0], 0xA2);
}

TEST_F(linux_transport_test, writes_are_one_message_of_offset_and_data) {
    auto t = make();
    const std::array<std::uint8_t, 2> data{0x01, 0x11};
    t->i2c_write(module_address, 126, data);
    ASSERT_EQ(io->transfers.size(), 1u);
    const auto& x = io->transfers[0];
    ASSERT_EQ(x.addrs.size(), 1u);
    EXPECT_EQ(x.flags[0], 0);
    EXPECT_EQ(x.lens[0], 3);
    EXPECT_EQ(x.written, (std::vector<std::uint8_t>{126, 0x01, 0x11}));
    EXPECT_EQ(io->memory[0x50][126], 0x01);
    EXPECT_EQ(io->memory[0x50][127], 0x11);
}

TEST_F(linux_transport_test, bus_errors_carry_the_errno) {
    auto t = make();
    std::array<std::uint8_t, 2> out{};
    io->i2c_errno = EREMOTEIO;
    EXPECT_EQ(error_of([&] { t->i2c_read(module_address, 0, out); }), EREMOTEIO);
    EXPECT_EQ(error_of([&] { t->i2c_write(module_address, 0, out); }), EREMOTEIO);
    io->i2c_errno = 0;
    io->memory.erase(0x50);  // module pulled: no acknowledge
    EXPECT_EQ(error_of([&] { t->i2c_read(module_address, 0, out); }), ENXIO);
    // Past byte 255 never reaches the bus.
    const auto before = io->transfers.size();
    EXPECT_EQ(error_of([&] { t->i2c_read(module_address, 255, out); }), EINVAL);
    EXPECT_EQ(io->transfers.size(), before);
}

TEST_F(linux_transport_test, open_failures_carry_the_errno_and_leak_nothing) {
    io->paths.erase("/dev/gpiochip3");
    EXPECT_EQ(error_of([&] { (void)make(); }), ENOENT);
    EXPECT_TRUE(io->open_fds.empty());
    io->open_errno = EACCES;
    EXPECT_EQ(error_of([&] { (void)make("/dev/qsfp4"); }), EACCES);
}

TEST_F(linux_transport_test, presence_is_an_active_low_input) {
    auto t = make();
    io->physical[{"/dev/gpiochip2", 14}] = false;  // ModPrsL pulled low: module in
    EXPECT_TRUE(t->module_present());
    ASSERT_EQ(io->requests.size(), 1u);
    const auto& r = io->requests[0];
    EXPECT_EQ(r.chip, "/dev/gpiochip2");
    EXPECT_EQ(r.offset, 14u);
    EXPECT_EQ(r.flags, GPIOHANDLE_REQUEST_INPUT | GPIOHANDLE_REQUEST_ACTIVE_LOW);
    EXPECT_EQ(r.label, "qsfpd");
    io->physical[{"/dev/gpiochip2", 14}] = true;
    EXPECT_FALSE(t->module_present());
    EXPECT_EQ(io->requests.size(), 1u);  // the handle is kept
}

TEST_F(linux_transport_test, taking_an_output_keeps_its_level) {
    auto t = make();
    io->physical[{"/dev/gpiochip2", 13}] = true;  // ResetL high: not in reset
    EXPECT_FALSE(t->pin_get(line::reset));        // active low: "reset" is false
    t->pin_set(line::lpmode, false);
    t->pin_set(line::reset, true);
    EXPECT_TRUE(t->pin_get(line::reset));
    EXPECT_FALSE(io->level("/dev/gpiochip2", 13));  // driven low
    // The only level change on reset is the one asked for: taking the output did not pulse it.
    std::vector<std::pair<std::string, bool>> reset_changes;
    for (const auto& c : io->level_changes)
        if (c.first == "/dev/gpiochip2:13") reset_changes.push_back(c);
    ASSERT_EQ(reset_changes.size(), 1u);
    EXPECT_FALSE(reset_changes[0].second);
    // The output request carried the level the line had.
    bool found = false;
    for (const auto& r : io->requests)
        if (r.offset == 13 && (r.flags & GPIOHANDLE_REQUEST_OUTPUT)) {
            found = true;
            EXPECT_EQ(r.flags, GPIOHANDLE_REQUEST_OUTPUT | GPIOHANDLE_REQUEST_ACTIVE_LOW);
            EXPECT_EQ(r.default_value, 0);  // logical "not in reset"
        }
    EXPECT_TRUE(found);
}

TEST_F(linux_transport_test, leds_map_to_their_lines) {
    auto t = make();
    t->pin_set(line::tx_led_yellow, true);
    t->pin_set(line::tx_led_green, true);
    t->pin_set(line::rx_led_yellow, true);
    t->pin_set(line::rx_led_green, false);
    EXPECT_TRUE(io->level("/dev/gpiochip2", 20));
    EXPECT_TRUE(io->level("/dev/gpiochip2", 21));
    EXPECT_TRUE(io->level("/dev/gpiochip2", 22));
    EXPECT_FALSE(io->level("/dev/gpiochip2", 23));
    EXPECT_EQ(error_of([&] { t->pin_set(2, true); }), EINVAL);
    auto bare = make("/dev/qsfp4");
    EXPECT_EQ(error_of([&] { bare->pin_set(line::tx_led_green, true); }), ENOTSUP);
}

TEST_F(linux_transport_test, sfp_signals) {
    auto t = make();
    io->physical[{"/dev/gpiochip3", 1}] = true;
    EXPECT_TRUE(t->sfp_signal_get(sfp_signal::tx_fault));
    io->physical[{"/dev/gpiochip3", 3}] = false;  // LOS wired active low
    EXPECT_TRUE(t->sfp_signal_get(sfp_signal::los));
    t->sfp_signal_set(sfp_signal::tx_disable, true);
    EXPECT_TRUE(io->level("/dev/gpiochip3", 2));
    t->sfp_signal_set(sfp_signal::rate_select, true);
    EXPECT_TRUE(io->level("/dev/gpiochip3", 4));
    EXPECT_EQ(error_of([&] { t->sfp_signal_set(sfp_signal::los, true); }), EINVAL);
    auto bare = make("/dev/qsfp4");
    EXPECT_EQ(error_of([&] { (void)bare->sfp_signal_get(sfp_signal::los); }), ENOTSUP);
}

TEST_F(linux_transport_test, gpio_errors_carry_the_errno) {
    auto t = make();
    auto other = make();  // a second owner of the same lines
    EXPECT_TRUE(other->module_present());
    EXPECT_EQ(error_of([&] { (void)t->module_present(); }), EBUSY);
}

TEST_F(linux_transport_test, everything_opened_is_closed) {
    {
        auto t = make();
        (void)t->module_present();
        t->pin_set(line::lpmode, true);
        t->sfp_signal_set(sfp_signal::tx_disable, false);
        EXPECT_FALSE(io->open_fds.empty());
    }
    EXPECT_TRUE(io->open_fds.empty());
}

class board_root_test : public ::testing::Test {
  protected:
    void SetUp() override {
        root =
            std::filesystem::temp_directory_path() / ("qsfpd-board-" + std::to_string(::getpid()));
        std::filesystem::create_directories(root / "etc/qsfpd");
        std::ofstream(root / "etc/qsfpd/board.json") << board_json;
        ::setenv("QSFPD_ROOT", root.c_str(), 1);
    }
    void TearDown() override {
        ::unsetenv("QSFPD_ROOT");
        std::filesystem::remove_all(root);
    }
    std::filesystem::path root;
};

TEST_F(board_root_test, the_board_file_is_found_under_the_root) {
    auto io = std::make_shared<fake_io>();
    io->memory[0x50].fill(0x0D);
    auto t = linux_i2c_transport::from_board_file("/dev/qsfp3", io);
    qsfp_device device("/dev/qsfp3", t);
    EXPECT_EQ(device.read_byte(0), 0x0D);
}

TEST_F(board_root_test, a_device_path_opens_the_hardware_transport) {
    // The board file's /dev/i2c-5 does not exist on the test machine under that name (or is not
    // ours to open): the device path went to the Linux transport, which reports the open error.
    std::ofstream(root / "etc/qsfpd/board.json")
        << R"({"cages": {"/dev/qsfp3": {"i2c": ")" << (root / "no-such-i2c").string()
        << R"(", "gpiochip": "/dev/gpiochip2"}}})";
    EXPECT_EQ(error_of([&] { qsfp_device device("/dev/qsfp3"); }), ENOENT);
}

}  // namespace
}  // namespace qsfpd::cage
