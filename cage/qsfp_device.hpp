#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>

#include "qsfp_transport.hpp"

namespace qsfpd::cage {

// One address space for the whole module memory: lower page bytes 0..127 as themselves, byte
// 128..255 of page p at p * 128 + byte (page 00h upper = 128..255, page 03h upper = 512..639,
// page 11h upper = 2304..2431). This is the layout of `ethtool -m` dumps and of our golden files.
using flat_address = std::uint32_t;

inline constexpr flat_address page_size = 128;
inline constexpr flat_address flat_end = 0xFF * page_size + 256;  // one past page FFh byte 255

constexpr flat_address flat(std::uint8_t page, std::uint8_t byte) {
    return byte < page_size ? byte : page * page_size + byte;
}

// CMIS pages that the Bank Select byte applies to: 10h..FFh except the CDB pages 9Fh..AFh.
constexpr bool is_cmis_banked_page(std::uint8_t page) {
    return page >= 0x10 && !(page >= 0x9F && page <= 0xAF);
}

// The memory-map family, as byte 0 (SFF-8024 identifier) tells it. 0x18 QSFP-DD, 0x19 OSFP and
// 0x1E "QSFP+ or later with CMIS" use CMIS; everything else in a QSFP cage uses SFF-8636.
enum class memory_map { sff8636, cmis };
constexpr memory_map memory_map_of(std::uint8_t identifier) {
    return identifier == 0x18 || identifier == 0x19 || identifier == 0x1E ? memory_map::cmis
                                                                          : memory_map::sff8636;
}

// One cage: paged access to the module over a qsfp_transport, the cage lines, and the SFP side of
// a QSFP-to-SFP converter. Every failed access throws std::system_error carrying the errno. Safe
// to share between threads: one mutex serialises the transfers (a page select and the read that
// depends on it must not interleave with another thread's).
class qsfp_device {
  public:
    using transport_factory = std::function<std::shared_ptr<qsfp_transport>(const std::string&)>;

    // A device path that names a Unix socket is the emulator's, served by the factory installed
    // with set_transport_factory; any other path is a cage of the board file (linux_i2c_transport).
    explicit qsfp_device(std::string path);
    qsfp_device(std::string name, std::shared_ptr<qsfp_transport> transport);

    qsfp_device(const qsfp_device&) = delete;
    qsfp_device& operator=(const qsfp_device&) = delete;

    // A fresh device named `name` over the transport of `old` (same device path), with no cached
    // state; `old` is left without a transport and fails every access with ENODEV, so a stale
    // holder cannot use the bus.
    static std::unique_ptr<qsfp_device> take_over(qsfp_device& old,
                                                  std::string name = "qsfp device");

    // Installs (or, with an empty function, removes) the transport used for emulator sockets.
    static void set_transport_factory(transport_factory factory);

    const std::string& name() const { return name_; }
    // The device file (or emulator socket) the cage is driven through; kept by take_over.
    const std::string& path() const { return path_; }

    // Paged module memory. A read or write crossing a 128-byte page boundary is split; the page
    // (byte 127) and, for CMIS banked pages, the bank (byte 126) are selected as needed.
    void i2c_read(flat_address address, std::span<std::uint8_t> out);
    void i2c_write(flat_address address, std::span<const std::uint8_t> data);
    void i2c_read_bank(std::uint8_t bank, flat_address address, std::span<std::uint8_t> out);
    void i2c_write_bank(std::uint8_t bank, flat_address address,
                        std::span<const std::uint8_t> data);
    std::uint8_t read_byte(flat_address address);
    void write_byte(flat_address address, std::uint8_t value);

    // The lower page answers and, for SFF-8636 identifiers, Data_Not_Ready (byte 2 bit 0) is
    // clear. Never throws: a module that does not answer is not ready.
    bool i2c_is_ready();

    // Forgets the cached page, bank and memory-map family; the next paged access selects again.
    void invalidate_cache();

    // Lines of transport line:: (0 lpmode, 1 reset, 4..7 LEDs). Setting lpmode or reset
    // invalidates the cache: the module may come back with its page select at 00h.
    bool pin_get(unsigned line);
    void pin_set(unsigned line, bool value);
    // Seeing the cage empty drops the cache too.
    bool module_present();

    void set_converter_flag(bool converter) { converter_ = converter; }
    bool get_converter_flag() const { return converter_; }

    // The SFP of a QSFP-to-SFP converter on one linear space: A0h byte n at n (address 0x50),
    // A2h byte n at 256 + n (address 0x51). Throws ENOTSUP unless the converter flag is set.
    void sfp_read(std::uint16_t address, std::span<std::uint8_t> out);
    void sfp_write(std::uint16_t address, std::span<const std::uint8_t> data);

    // The SFP's signals. sfp_los() is loss of signal as such: when the SFP advertises its LOS line
    // as inverted (A0h byte 65 bit 2 without bit 1), the line is inverted here.
    bool sfp_tx_fault();
    bool sfp_los();
    bool sfp_tx_disable();
    void sfp_set_tx_disable(bool disable);
    bool sfp_rate_select();
    void sfp_set_rate_select(bool high);

    // What the SFP advertises in A0h byte 65 (SFF-8472 Table 8-3, Option Values).
    bool sfp_rate_select_implemented();
    bool sfp_tx_disable_implemented();
    bool sfp_tx_fault_implemented();
    bool sfp_los_implemented();  // either polarity
    bool sfp_los_inverted();

    // Platform: whether /proc/device-tree/zeltNN exists (under $QSFPD_ROOT).
    static bool is_qsfp_zelt20();
    static bool is_qsfp_zelt30();
    static bool is_qsfp_zelt40();
    static bool is_qsfp_zelt50();

  private:
    using lock = std::unique_lock<std::mutex>;

    qsfp_transport& transport(const lock&);
    void transfer(
        const lock& held, std::uint8_t bank, flat_address address, std::size_t length,
        const std::function<void(std::uint8_t offset, std::size_t done, std::size_t n)>& io);
    void select(const lock& held, std::uint8_t bank, std::uint8_t page);
    memory_map family(const lock& held);
    std::uint8_t sfp_options();
    void require_converter() const;

    std::string name_;
    std::string path_;
    std::shared_ptr<qsfp_transport> transport_;
    std::mutex mutex_;
    std::optional<std::uint8_t> page_;
    std::optional<std::uint8_t> bank_;
    std::optional<memory_map> family_;
    std::atomic<bool> converter_{false};
};

}  // namespace qsfpd::cage
