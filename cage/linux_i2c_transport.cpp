#include "linux_i2c_transport.hpp"

#include <fcntl.h>
#include <linux/gpio.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "json_parse.hpp"
#include "system_path.hpp"

namespace qsfpd::cage {

namespace {

class system_io final : public linux_io {
  public:
    int open(const std::string& path, int flags) override {
        const int fd = ::open(path.c_str(), flags | O_CLOEXEC);
        return fd < 0 ? -errno : fd;
    }
    int ioctl(int fd, unsigned long request, void* argument) override {
        const int result = ::ioctl(fd, request, argument);
        return result < 0 ? -errno : result;
    }
    int close(int fd) override { return ::close(fd) < 0 ? -errno : 0; }
};

[[noreturn]] void fail(int error, const std::string& what) {
    throw std::system_error(error, std::generic_category(), what);
}

// transport line numbers (qsfp_transport.hpp) -> board file line names
const char* line_name(unsigned line) {
    switch (line) {
        case line::lpmode:
            return "lpmode";
        case line::reset:
            return "reset";
        case line::tx_led_yellow:
            return "led_tx_yellow";
        case line::tx_led_green:
            return "led_tx_green";
        case line::rx_led_yellow:
            return "led_rx_yellow";
        case line::rx_led_green:
            return "led_rx_green";
        default:
            return nullptr;
    }
}

const char* signal_name(sfp_signal signal) {
    switch (signal) {
        case sfp_signal::tx_fault:
            return "tx_fault";
        case sfp_signal::tx_disable:
            return "tx_disable";
        case sfp_signal::los:
            return "los";
        case sfp_signal::rate_select:
            return "rate_select";
    }
    return "?";
}

bool is_sfp_input(sfp_signal signal) {
    return signal == sfp_signal::tx_fault || signal == sfp_signal::los;
}

[[noreturn]] void bad_board(const std::string& cage, const std::string& what) {
    throw std::runtime_error("board file, cage " + cage + ": " + what);
}

cage_wiring::gpio_group parse_group(const rapidjson::Value& v, const std::string& cage,
                                    const std::string& where, const std::string* inherited_chip) {
    cage_wiring::gpio_group group;
    if (v.HasMember("gpiochip")) {
        if (!v["gpiochip"].IsString()) bad_board(cage, where + "gpiochip must be a string");
        group.gpiochip = v["gpiochip"].GetString();
    } else if (inherited_chip) {
        group.gpiochip = *inherited_chip;
    } else {
        bad_board(cage, where + "gpiochip missing");
    }
    if (v.HasMember("lines")) {
        const auto& lines = v["lines"];
        if (!lines.IsObject()) bad_board(cage, where + "lines must be an object");
        for (const auto& m : lines.GetObject()) {
            if (!m.value.IsUint())
                bad_board(cage,
                          where + "line " + m.name.GetString() + " must be a non-negative integer");
            group.lines.emplace(m.name.GetString(), m.value.GetUint());
        }
    }
    if (v.HasMember("active_low")) {
        const auto& low = v["active_low"];
        if (!low.IsArray()) bad_board(cage, where + "active_low must be an array");
        for (const auto& name : low.GetArray()) {
            if (!name.IsString()) bad_board(cage, where + "active_low holds line names");
            if (!group.lines.contains(std::string_view(name.GetString())))
                bad_board(cage, where + "active_low names unknown line " + name.GetString());
            group.active_low.emplace(name.GetString());
        }
    }
    return group;
}

}  // namespace

std::shared_ptr<linux_io> linux_io::system() {
    static const auto io = std::make_shared<system_io>();
    return io;
}

cage_wiring parse_board_file(std::string_view json, const std::string& cage_path) {
    rapidjson::Document doc;
    if (const auto parsed = qsfpd::parse_json(json.data(), json.size(), doc); !parsed)
        throw std::runtime_error("board file: " + parsed.message());
    if (!doc.IsObject() || !doc.HasMember("cages") || !doc["cages"].IsObject())
        throw std::runtime_error("board file: no \"cages\" object");
    const auto& cages = doc["cages"];
    const auto it = cages.FindMember(cage_path.c_str());
    if (it == cages.MemberEnd()) bad_board(cage_path, "not in the board file");
    const auto& v = it->value;
    if (!v.IsObject()) bad_board(cage_path, "must be an object");

    cage_wiring wiring;
    if (!v.HasMember("i2c") || !v["i2c"].IsString()) bad_board(cage_path, "i2c missing");
    wiring.i2c = v["i2c"].GetString();
    wiring.cage = parse_group(v, cage_path, "", nullptr);
    if (v.HasMember("sfp")) {
        if (!v["sfp"].IsObject()) bad_board(cage_path, "sfp must be an object");
        wiring.sfp = parse_group(v["sfp"], cage_path, "sfp: ", &wiring.cage.gpiochip);
    }
    return wiring;
}

std::shared_ptr<linux_i2c_transport> linux_i2c_transport::from_board_file(
    const std::string& cage_path, std::shared_ptr<linux_io> io) {
    const std::string board = qsfpd::system_path("/etc/qsfpd/board.json");
    std::ifstream in(board);
    if (!in) throw std::runtime_error("cannot read board file " + board);
    const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    return std::make_shared<linux_i2c_transport>(parse_board_file(text, cage_path), std::move(io));
}

linux_i2c_transport::linux_i2c_transport(cage_wiring wiring, std::shared_ptr<linux_io> io)
    : wiring_(std::move(wiring)), io_(std::move(io)) {
    cage_chip_.group = &wiring_.cage;
    try {
        i2c_fd_ = open_or_throw(wiring_.i2c, O_RDWR);
        cage_chip_.fd = open_or_throw(wiring_.cage.gpiochip, O_RDWR);
        if (wiring_.sfp) {
            sfp_chip_.emplace(chip{});
            sfp_chip_->group = &*wiring_.sfp;
            // Sharing the chip fd would be fine for the kernel, but one fd per group keeps the
            // ownership simple.
            sfp_chip_->fd = open_or_throw(wiring_.sfp->gpiochip, O_RDWR);
        }
    } catch (...) {
        if (sfp_chip_ && sfp_chip_->fd >= 0) io_->close(sfp_chip_->fd);
        if (cage_chip_.fd >= 0) io_->close(cage_chip_.fd);
        if (i2c_fd_ >= 0) io_->close(i2c_fd_);
        throw;
    }
}

linux_i2c_transport::~linux_i2c_transport() {
    for (chip* c : {&cage_chip_, sfp_chip_ ? &*sfp_chip_ : nullptr}) {
        if (!c) continue;
        for (auto& [name, h] : c->handles)
            io_->close(h.fd);
        if (c->fd >= 0) io_->close(c->fd);
    }
    if (i2c_fd_ >= 0) io_->close(i2c_fd_);
}

int linux_i2c_transport::open_or_throw(const std::string& path, int flags) {
    const int fd = io_->open(path, flags);
    if (fd < 0) fail(-fd, "open " + path);
    return fd;
}

void linux_i2c_transport::i2c_read(std::uint8_t device_address, std::uint8_t offset,
                                   std::span<std::uint8_t> out) {
    if (out.empty()) return;
    if (out.size() > 256u - offset) fail(EINVAL, "i2c read past byte 255");
    std::uint8_t offset_byte = offset;
    std::array<i2c_msg, 2> msgs{};
    msgs[0].addr = device_address;
    msgs[0].flags = 0;
    msgs[0].len = 1;
    msgs[0].buf = &offset_byte;
    msgs[1].addr = device_address;
    msgs[1].flags = I2C_M_RD;
    msgs[1].len = static_cast<std::uint16_t>(out.size());
    msgs[1].buf = out.data();
    i2c_rdwr_ioctl_data transfer{msgs.data(), static_cast<std::uint32_t>(msgs.size())};
    std::lock_guard guard(mutex_);
    const int result = io_->ioctl(i2c_fd_, I2C_RDWR, &transfer);
    if (result < 0) fail(-result, wiring_.i2c + ": read");
}

void linux_i2c_transport::i2c_write(std::uint8_t device_address, std::uint8_t offset,
                                    std::span<const std::uint8_t> data) {
    if (data.size() > 256u - offset) fail(EINVAL, "i2c write past byte 255");
    std::vector<std::uint8_t> buffer;
    buffer.reserve(data.size() + 1);
    buffer.push_back(offset);
    buffer.insert(buffer.end(), data.begin(), data.end());
    i2c_msg msg{};
    msg.addr = device_address;
    msg.flags = 0;
    msg.len = static_cast<std::uint16_t>(buffer.size());
    msg.buf = buffer.data();
    i2c_rdwr_ioctl_data transfer{&msg, 1};
    std::lock_guard guard(mutex_);
    const int result = io_->ioctl(i2c_fd_, I2C_RDWR, &transfer);
    if (result < 0) fail(-result, wiring_.i2c + ": write");
}

int linux_i2c_transport::line_handle(chip& c, std::string_view name, direction dir) {
    const auto line = c.group->lines.find(name);
    if (line == c.group->lines.end())
        fail(ENOTSUP, "line " + std::string(name) + " is not wired in the board file");
    if (auto it = c.handles.find(name); it != c.handles.end()) {
        if (it->second.dir == dir || dir == direction::input) return it->second.fd;
    }
    const bool low = c.group->active_low.contains(name);
    auto request = [&](direction d, bool level) {
        gpiohandle_request req{};
        req.lineoffsets[0] = line->second;
        req.lines = 1;
        req.flags =
            (d == direction::output ? GPIOHANDLE_REQUEST_OUTPUT : GPIOHANDLE_REQUEST_INPUT) |
            (low ? GPIOHANDLE_REQUEST_ACTIVE_LOW : 0);
        req.default_values[0] = level ? 1 : 0;
        std::strncpy(req.consumer_label, "qsfpd", sizeof(req.consumer_label) - 1);
        const int result = io_->ioctl(c.fd, GPIO_GET_LINEHANDLE_IOCTL, &req);
        if (result < 0) fail(-result, c.group->gpiochip + ": request line " + std::string(name));
        return req.fd;
    };
    if (dir == direction::input) {
        const int fd = request(direction::input, false);
        c.handles.emplace(std::string(name), handle{fd, direction::input});
        return fd;
    }
    // Taking an output line must not glitch it (a reset pulse, a module dropped into low power):
    // read the level it has now and request the output at that level.
    bool level = false;
    if (auto it = c.handles.find(name); it != c.handles.end()) {
        gpiohandle_data data{};
        const int result = io_->ioctl(it->second.fd, GPIOHANDLE_GET_LINE_VALUES_IOCTL, &data);
        if (result < 0) fail(-result, c.group->gpiochip + ": read line " + std::string(name));
        level = data.values[0] != 0;
        io_->close(it->second.fd);
        c.handles.erase(it);
    } else {
        const int probe = request(direction::input, false);
        gpiohandle_data data{};
        const int result = io_->ioctl(probe, GPIOHANDLE_GET_LINE_VALUES_IOCTL, &data);
        io_->close(probe);
        if (result < 0) fail(-result, c.group->gpiochip + ": read line " + std::string(name));
        level = data.values[0] != 0;
    }
    const int fd = request(direction::output, level);
    c.handles.emplace(std::string(name), handle{fd, direction::output});
    return fd;
}

bool linux_i2c_transport::get_line(chip& c, std::string_view name, direction dir) {
    std::lock_guard guard(mutex_);
    const int fd = line_handle(c, name, dir);
    gpiohandle_data data{};
    const int result = io_->ioctl(fd, GPIOHANDLE_GET_LINE_VALUES_IOCTL, &data);
    if (result < 0) fail(-result, c.group->gpiochip + ": read line " + std::string(name));
    return data.values[0] != 0;
}

void linux_i2c_transport::set_line(chip& c, std::string_view name, bool value) {
    std::lock_guard guard(mutex_);
    const int fd = line_handle(c, name, direction::output);
    gpiohandle_data data{};
    data.values[0] = value ? 1 : 0;
    const int result = io_->ioctl(fd, GPIOHANDLE_SET_LINE_VALUES_IOCTL, &data);
    if (result < 0) fail(-result, c.group->gpiochip + ": set line " + std::string(name));
}

bool linux_i2c_transport::pin_get(unsigned line) {
    const char* name = line_name(line);
    if (!name) fail(EINVAL, "no cage line " + std::to_string(line));
    // Reading an output we have not driven yet takes it as input: no need to own it for a read.
    return get_line(cage_chip_, name, direction::input);
}

void linux_i2c_transport::pin_set(unsigned line, bool value) {
    const char* name = line_name(line);
    if (!name) fail(EINVAL, "no cage line " + std::to_string(line));
    set_line(cage_chip_, name, value);
}

bool linux_i2c_transport::module_present() {
    return get_line(cage_chip_, "present", direction::input);
}

linux_i2c_transport::chip& linux_i2c_transport::sfp_chip() {
    if (!sfp_chip_) fail(ENOTSUP, "cage has no SFP converter lines in the board file");
    return *sfp_chip_;
}

bool linux_i2c_transport::sfp_signal_get(sfp_signal signal) {
    return get_line(sfp_chip(), signal_name(signal), direction::input);
}

void linux_i2c_transport::sfp_signal_set(sfp_signal signal, bool value) {
    if (is_sfp_input(signal))
        fail(EINVAL, std::string("SFP signal ") + signal_name(signal) + " is an input");
    set_line(sfp_chip(), signal_name(signal), value);
}

}  // namespace qsfpd::cage
