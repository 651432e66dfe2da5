#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>

#include "qsfp_transport.hpp"

namespace qsfpd::cage {

// The three syscalls the hardware transport makes, behind an interface so tests can stand in a
// fake bus. Each returns what the syscall returns on success and -errno on failure.
class linux_io {
  public:
    virtual ~linux_io() = default;
    virtual int open(const std::string& path, int flags) = 0;
    virtual int ioctl(int fd, unsigned long request, void* argument) = 0;
    virtual int close(int fd) = 0;

    // The real syscalls.
    static std::shared_ptr<linux_io> system();
};

// One cage of the board file (docs/board-file.md): which bus and which GPIO lines it uses.
struct cage_wiring {
    struct gpio_group {
        std::string gpiochip;
        std::map<std::string, unsigned, std::less<>> lines;  // name -> line offset on the chip
        std::set<std::string, std::less<>> active_low;
    };
    std::string i2c;
    gpio_group cage;                // lpmode, reset, present, led_tx_yellow, ...
    std::optional<gpio_group> sfp;  // tx_fault, tx_disable, los, rate_select
};

// Parses the board file text and returns the wiring of `cage_path`; throws std::runtime_error
// naming what is wrong (bad JSON, unknown cage, missing or mistyped member).
cage_wiring parse_board_file(std::string_view json, const std::string& cage_path);

// A cage on real hardware: the module over i2c-dev (I2C_RDWR, write-offset-then-read as one
// combined transfer) and the cage lines over the GPIO character device (v1 line handles, one per
// line, taken on first use and held for the life of the transport).
class linux_i2c_transport final : public qsfp_transport {
  public:
    linux_i2c_transport(cage_wiring wiring, std::shared_ptr<linux_io> io);
    ~linux_i2c_transport() override;

    linux_i2c_transport(const linux_i2c_transport&) = delete;
    linux_i2c_transport& operator=(const linux_i2c_transport&) = delete;

    // The cage `cage_path` of the board file /etc/qsfpd/board.json (looked up under $QSFPD_ROOT).
    static std::shared_ptr<linux_i2c_transport> from_board_file(
        const std::string& cage_path, std::shared_ptr<linux_io> io = linux_io::system());

    void i2c_read(std::uint8_t device_address, std::uint8_t offset,
                  std::span<std::uint8_t> out) override;
    void i2c_write(std::uint8_t device_address, std::uint8_t offset,
                   std::span<const std::uint8_t> data) override;

    bool pin_get(unsigned line) override;
    void pin_set(unsigned line, bool value) override;
    bool module_present() override;

    bool sfp_signal_get(sfp_signal signal) override;
    void sfp_signal_set(sfp_signal signal, bool value) override;

  private:
    enum class direction { input, output };
    struct handle {
        int fd = -1;
        direction dir = direction::input;
    };
    struct chip {
        const cage_wiring::gpio_group* group = nullptr;
        int fd = -1;
        std::map<std::string, handle, std::less<>> handles;
    };

    int open_or_throw(const std::string& path, int flags);
    int line_handle(chip& c, std::string_view name, direction dir);
    bool get_line(chip& c, std::string_view name, direction dir);
    void set_line(chip& c, std::string_view name, bool value);
    chip& sfp_chip();

    cage_wiring wiring_;
    std::shared_ptr<linux_io> io_;
    std::mutex mutex_;
    int i2c_fd_ = -1;
    chip cage_chip_;
    std::optional<chip> sfp_chip_;
};

}  // namespace qsfpd::cage
