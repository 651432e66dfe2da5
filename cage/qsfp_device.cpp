#include "qsfp_device.hpp"

#include <array>
#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "linux_i2c_transport.hpp"
#include "msg_log.hpp"
#include "system_path.hpp"

namespace qsfpd::cage {

namespace {

// Lower page bytes of the select registers (SFF-8636 and CMIS both put Page Select at 127; CMIS
// puts Bank Select at 126, right before it, so both go in one write).
constexpr std::uint8_t bank_select_byte = 126;
constexpr std::uint8_t page_select_byte = 127;

// SFF-8636 Table 6-2 (Status Indicators), lower page byte 2 bit 0: Data_Not_Ready.
constexpr std::uint8_t status_byte = 2;
constexpr std::uint8_t data_not_ready_bit = 0x01;
constexpr std::uint8_t sfp_identifier = 0x03;  // SFF-8024: SFP/SFP+/SFP28

// SFF-8472 Table 8-3, A0h byte 65 (Option Values).
constexpr std::uint16_t sfp_options_address = 65;
constexpr std::uint8_t sfp_option_rate_select = 0x20;   // bit 5
constexpr std::uint8_t sfp_option_tx_disable = 0x10;    // bit 4
constexpr std::uint8_t sfp_option_tx_fault = 0x08;      // bit 3
constexpr std::uint8_t sfp_option_los_inverted = 0x04;  // bit 2
constexpr std::uint8_t sfp_option_los = 0x02;           // bit 1

constexpr std::size_t sfp_space_end = 512;
constexpr std::size_t sfp_a2_base = 256;

std::mutex& factory_mutex() {
    static std::mutex mutex;
    return mutex;
}
qsfp_device::transport_factory& socket_factory() {
    static qsfp_device::transport_factory factory;
    return factory;
}

std::shared_ptr<qsfp_transport> transport_for(const std::string& path) {
    std::error_code ec;
    if (std::filesystem::is_socket(path, ec)) {
        qsfp_device::transport_factory factory;
        {
            std::lock_guard guard(factory_mutex());
            factory = socket_factory();
        }
        if (!factory)
            throw std::runtime_error(path +
                                     " is an emulator socket, but the emulator transport is not "
                                     "available in this build");
        return factory(path);
    }
    return linux_i2c_transport::from_board_file(path);
}

bool marker_exists(const char* marker) {
    std::error_code ec;
    return std::filesystem::exists(qsfpd::system_path(marker), ec);
}

[[noreturn]] void fail(int error, const std::string& what) {
    throw std::system_error(error, std::generic_category(), what);
}

}  // namespace

qsfp_device::qsfp_device(std::string path)
    : name_(path), path_(std::move(path)), transport_(transport_for(path_)) {}

qsfp_device::qsfp_device(std::string name, std::shared_ptr<qsfp_transport> transport)
    : name_(name), path_(std::move(name)), transport_(std::move(transport)) {
    if (!transport_) throw std::invalid_argument("qsfp_device " + name_ + ": no transport");
}

std::unique_ptr<qsfp_device> qsfp_device::take_over(qsfp_device& old, std::string name) {
    std::shared_ptr<qsfp_transport> transport;
    {
        lock held(old.mutex_);
        transport = std::exchange(old.transport_, nullptr);
        old.page_.reset();
        old.bank_.reset();
        old.family_.reset();
    }
    if (!transport) fail(ENODEV, old.name_ + ": transport already taken over");
    auto fresh = std::make_unique<qsfp_device>(std::move(name), std::move(transport));
    fresh->path_ = old.path_;
    return fresh;
}

void qsfp_device::set_transport_factory(transport_factory factory) {
    std::lock_guard guard(factory_mutex());
    socket_factory() = std::move(factory);
}

qsfp_transport& qsfp_device::transport(const lock&) {
    if (!transport_) fail(ENODEV, name_ + ": device was taken over");
    return *transport_;
}

memory_map qsfp_device::family(const lock& held) {
    if (!family_) {
        std::array<std::uint8_t, 1> identifier{};
        transport(held).i2c_read(module_address, 0, identifier);
        family_ = memory_map_of(identifier[0]);
    }
    return *family_;
}

void qsfp_device::select(const lock& held, std::uint8_t bank, std::uint8_t page) {
    const bool banked = is_cmis_banked_page(page) && family(held) == memory_map::cmis;
    if (!banked && bank != 0 && family(held) == memory_map::sff8636)
        fail(EINVAL, name_ + ": SFF-8636 modules have no banks");
    if (banked) {
        if (page_ == page && bank_ == bank) return;
        if (bank_ == bank) {
            // The bank is right already: switching the page alone cannot leave a half-switched
            // pair, and saves a byte on every return to the monitoring page.
            const std::array<std::uint8_t, 1> value{page};
            transport(held).i2c_write(module_address, page_select_byte, value);
            page_ = page;
            return;
        }
        // CMIS asks for bank and page in one write, so the module never sees a half-switched pair.
        const std::array<std::uint8_t, 2> pair{bank, page};
        transport(held).i2c_write(module_address, bank_select_byte, pair);
        bank_ = bank;
        page_ = page;
        return;
    }
    if (page_ == page) return;
    const std::array<std::uint8_t, 1> value{page};
    transport(held).i2c_write(module_address, page_select_byte, value);
    page_ = page;
}

void qsfp_device::transfer(
    const lock& held, std::uint8_t bank, flat_address address, std::size_t length,
    const std::function<void(std::uint8_t offset, std::size_t done, std::size_t n)>& io) {
    if (address >= flat_end || length > flat_end - address)
        fail(EINVAL, name_ + ": flat address " + std::to_string(address) + "+" +
                         std::to_string(length) + " out of range");
    try {
        std::size_t done = 0;
        while (done < length) {
            const flat_address at = address + static_cast<flat_address>(done);
            // Never cross a 128-byte boundary in one transfer: the next 128 bytes are another page.
            const std::size_t n = std::min<std::size_t>(length - done, page_size - at % page_size);
            std::uint8_t offset;
            if (at < page_size) {
                offset = static_cast<std::uint8_t>(at);
            } else {
                const auto page = static_cast<std::uint8_t>(at / page_size - 1);
                select(held, bank, page);
                offset = static_cast<std::uint8_t>(page_size + at % page_size);
            }
            io(offset, done, n);
            done += n;
        }
    } catch (...) {
        // After a failure we cannot know what the module latched.
        page_.reset();
        bank_.reset();
        family_.reset();
        throw;
    }
}

void qsfp_device::i2c_read_bank(std::uint8_t bank, flat_address address,
                                std::span<std::uint8_t> out) {
    lock held(mutex_);
    transfer(held, bank, address, out.size(),
             [&](std::uint8_t offset, std::size_t done, std::size_t n) {
                 transport(held).i2c_read(module_address, offset, out.subspan(done, n));
             });
}

void qsfp_device::i2c_write_bank(std::uint8_t bank, flat_address address,
                                 std::span<const std::uint8_t> data) {
    lock held(mutex_);
    transfer(held, bank, address, data.size(),
             [&](std::uint8_t offset, std::size_t done, std::size_t n) {
                 transport(held).i2c_write(module_address, offset, data.subspan(done, n));
                 // A write of the select bytes themselves changes what we have selected.
                 if (offset <= page_select_byte && offset + n > bank_select_byte) {
                     page_.reset();
                     bank_.reset();
                 }
             });
}

void qsfp_device::i2c_read(flat_address address, std::span<std::uint8_t> out) {
    i2c_read_bank(0, address, out);
}

void qsfp_device::i2c_write(flat_address address, std::span<const std::uint8_t> data) {
    i2c_write_bank(0, address, data);
}

std::uint8_t qsfp_device::read_byte(flat_address address) {
    std::array<std::uint8_t, 1> value{};
    i2c_read(address, value);
    return value[0];
}

void qsfp_device::write_byte(flat_address address, std::uint8_t value) {
    const std::array<std::uint8_t, 1> data{value};
    i2c_write(address, data);
}

bool qsfp_device::i2c_is_ready() {
    std::array<std::uint8_t, 3> head{};
    try {
        lock held(mutex_);
        transport(held).i2c_read(module_address, 0, head);
    } catch (const std::system_error& e) {
        MSG_LOG(msg_log::debug, name_) << "module not ready: " << e.what();
        invalidate_cache();
        return false;
    }
    // An SFP behind a converter (identifier 03h) has its connector code in byte 2, not a status.
    if (memory_map_of(head[0]) == memory_map::sff8636 && head[0] != sfp_identifier &&
        (head[status_byte] & data_not_ready_bit))
        return false;
    return true;
}

void qsfp_device::invalidate_cache() {
    lock held(mutex_);
    page_.reset();
    bank_.reset();
    family_.reset();
}

bool qsfp_device::pin_get(unsigned line) {
    lock held(mutex_);
    return transport(held).pin_get(line);
}

void qsfp_device::pin_set(unsigned line, bool value) {
    lock held(mutex_);
    if (line == line::lpmode || line == line::reset) {
        // Reset (and on some modules a power-mode change) brings the page select back to 00h.
        page_.reset();
        bank_.reset();
        family_.reset();
    }
    transport(held).pin_set(line, value);
}

bool qsfp_device::module_present() {
    lock held(mutex_);
    const bool present = transport(held).module_present();
    if (!present) {
        // Whatever comes in next starts with its own page select and identifier.
        page_.reset();
        bank_.reset();
        family_.reset();
    }
    return present;
}

void qsfp_device::require_converter() const {
    if (!converter_) fail(ENOTSUP, name_ + ": no QSFP-to-SFP converter in the cage");
}

void qsfp_device::sfp_read(std::uint16_t address, std::span<std::uint8_t> out) {
    require_converter();
    if (address >= sfp_space_end || out.size() > sfp_space_end - address)
        fail(EINVAL, name_ + ": SFP address out of range");
    lock held(mutex_);
    std::size_t done = 0;
    while (done < out.size()) {
        const std::size_t at = address + done;
        const bool a2 = at >= sfp_a2_base;
        const std::size_t n = std::min(out.size() - done, (a2 ? sfp_space_end : sfp_a2_base) - at);
        transport(held).i2c_read(a2 ? sfp_diagnostics_address : module_address,
                                 static_cast<std::uint8_t>(at % 256), out.subspan(done, n));
        done += n;
    }
}

void qsfp_device::sfp_write(std::uint16_t address, std::span<const std::uint8_t> data) {
    require_converter();
    if (address >= sfp_space_end || data.size() > sfp_space_end - address)
        fail(EINVAL, name_ + ": SFP address out of range");
    lock held(mutex_);
    std::size_t done = 0;
    while (done < data.size()) {
        const std::size_t at = address + done;
        const bool a2 = at >= sfp_a2_base;
        const std::size_t n = std::min(data.size() - done, (a2 ? sfp_space_end : sfp_a2_base) - at);
        transport(held).i2c_write(a2 ? sfp_diagnostics_address : module_address,
                                  static_cast<std::uint8_t>(at % 256), data.subspan(done, n));
        done += n;
    }
}

std::uint8_t qsfp_device::sfp_options() {
    std::array<std::uint8_t, 1> options{};
    sfp_read(sfp_options_address, options);
    return options[0];
}

bool qsfp_device::sfp_tx_fault() {
    require_converter();
    lock held(mutex_);
    return transport(held).sfp_signal_get(sfp_signal::tx_fault);
}

bool qsfp_device::sfp_los() {
    const std::uint8_t options = sfp_options();
    const bool inverted = (options & sfp_option_los_inverted) && !(options & sfp_option_los);
    lock held(mutex_);
    const bool line = transport(held).sfp_signal_get(sfp_signal::los);
    return inverted ? !line : line;
}

bool qsfp_device::sfp_tx_disable() {
    require_converter();
    lock held(mutex_);
    return transport(held).sfp_signal_get(sfp_signal::tx_disable);
}

void qsfp_device::sfp_set_tx_disable(bool disable) {
    require_converter();
    lock held(mutex_);
    transport(held).sfp_signal_set(sfp_signal::tx_disable, disable);
}

bool qsfp_device::sfp_rate_select() {
    require_converter();
    lock held(mutex_);
    return transport(held).sfp_signal_get(sfp_signal::rate_select);
}

void qsfp_device::sfp_set_rate_select(bool high) {
    require_converter();
    lock held(mutex_);
    transport(held).sfp_signal_set(sfp_signal::rate_select, high);
}

bool qsfp_device::sfp_rate_select_implemented() {
    return sfp_options() & sfp_option_rate_select;
}
bool qsfp_device::sfp_tx_disable_implemented() {
    return sfp_options() & sfp_option_tx_disable;
}
bool qsfp_device::sfp_tx_fault_implemented() {
    return sfp_options() & sfp_option_tx_fault;
}
bool qsfp_device::sfp_los_implemented() {
    return sfp_options() & (sfp_option_los | sfp_option_los_inverted);
}
bool qsfp_device::sfp_los_inverted() {
    const std::uint8_t options = sfp_options();
    return (options & sfp_option_los_inverted) && !(options & sfp_option_los);
}

bool qsfp_device::is_qsfp_zelt20() {
    return marker_exists("/proc/device-tree/zelt20");
}
bool qsfp_device::is_qsfp_zelt30() {
    return marker_exists("/proc/device-tree/zelt30");
}
bool qsfp_device::is_qsfp_zelt40() {
    return marker_exists("/proc/device-tree/zelt40");
}
bool qsfp_device::is_qsfp_zelt50() {
    return marker_exists("/proc/device-tree/zelt50");
}

}  // namespace qsfpd::cage
