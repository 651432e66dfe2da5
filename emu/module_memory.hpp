#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <vector>

namespace qsfpd::emu {

// An upper page (bytes 128..255) by bank and page. The bank only matters for the CMIS banked
// pages 10h..1Fh; every other page lives in bank 0.
struct page_id {
    std::uint8_t bank = 0;
    std::uint8_t page = 0;
    auto operator<=>(const page_id&) const = default;
};

// How byte 127 (and for CMIS byte 126) map upper pages into bytes 128..255.
enum class paging {
    flat,    // no page select: 128..255 is always page 00h and 127 is an ordinary byte (SFP A0h)
    paged,   // byte 127 selects the page (SFF-8636, SFF-8472 A2h)
    banked,  // CMIS: byte 127 selects the page, byte 126 the bank of pages 10h..1Fh
};

// What a select of a page the module does not implement does. CMIS 5.2 (page mapping registers,
// bytes 126-127) lets the module refuse to map an unsupported page: the select write is ignored
// and the previous page stays. SFF-8636 leaves it open; some modules accept any page number and
// read FFh there.
enum class unsupported_page { reject, read_ff };

// A module's management memory as the host sees it over the two-wire bus: lower memory (0..127),
// selectable upper pages, read-only and writable bits, latched flags that clear when read, and
// hooks for the behaviour layer. Offsets below 128 always address lower memory; wherever an API
// takes a page_id with such an offset, the page_id is ignored.
class module_memory {
  public:
    using page_image = std::array<std::uint8_t, 128>;
    // Called after a host write transaction, once per written byte, with the value the host sent
    // (before the write mask), so that write-only trigger bits are seen.
    using write_hook = std::function<void(page_id, std::uint8_t offset, std::uint8_t value)>;
    // Called before a host read returns the byte, so that the behaviour layer can compute it.
    using read_hook = std::function<void(page_id, std::uint8_t offset)>;

    explicit module_memory(paging mode = paging::paged,
                           unsupported_page policy = unsupported_page::reject);

    // Layout, normally set up from a profile.
    void set_lower(const page_image& image);
    void add_page(page_id page, const page_image& image);
    bool has_page(page_id page) const;
    std::vector<page_id> pages() const;
    // Bits the host may write; everything else is read-only. `first`..`last` inclusive, within
    // one half (lower or upper). For an upper range the page must exist.
    void set_writable(page_id page, std::uint8_t first, std::uint8_t last,
                      std::uint8_t mask = 0xff);
    // Bits that clear when the host reads them (latched flags).
    void set_clear_on_read(page_id page, std::uint8_t first, std::uint8_t last,
                           std::uint8_t mask = 0xff);

    // Host transfers: sequential access with an 8-bit address counter that wraps from 255 to 0
    // (lower memory) and runs from 127 into the selected upper page. A page or bank select
    // written in a transaction takes effect when the transaction ends.
    void read(std::uint8_t offset, std::span<std::uint8_t> out);
    void write(std::uint8_t offset, std::span<const std::uint8_t> data);

    // The page mapped at 128..255 now.
    page_id selected() const;

    // Raw access for tests, the control interface and the behaviour layer: no masks, no
    // clear-on-read, no hooks, no page-select side effects.
    std::uint8_t peek(page_id page, std::uint8_t offset) const;
    void poke(page_id page, std::uint8_t offset, std::uint8_t value);
    std::uint16_t peek16(page_id page, std::uint8_t offset) const;  // big endian, as on the wire
    void poke16(page_id page, std::uint8_t offset, std::uint16_t value);
    // Sets (latch) or clears bits of a byte, raw.
    void latch(page_id page, std::uint8_t offset, std::uint8_t bits);
    void clear_bits(page_id page, std::uint8_t offset, std::uint8_t bits);

    // Whether any clear-on-read bit is set (the module's interrupt condition, masks aside).
    bool any_latched() const;

    void on_write(page_id page, std::uint8_t first, std::uint8_t last, write_hook hook);
    void on_read(page_id page, std::uint8_t first, std::uint8_t last, read_hook hook);

  private:
    struct region {
        page_image data{};
        page_image write_mask{};
        page_image clear_mask{};
    };
    template <class Hook>
    struct hook_entry {
        page_id page;
        std::uint8_t first;
        std::uint8_t last;
        Hook hook;
    };

    region& region_for(page_id page, std::uint8_t offset);
    const region& region_for(page_id page, std::uint8_t offset) const;
    // The page seen at 128..255 for given select bytes; nullopt-like false when unsupported.
    page_id resolve(std::uint8_t bank, std::uint8_t page) const;
    bool supported(std::uint8_t bank, std::uint8_t page) const;
    static bool matches(page_id hook_page, std::uint8_t first, std::uint8_t last, page_id page,
                        std::uint8_t offset);

    paging mode_;
    unsupported_page policy_;
    region lower_;
    std::map<page_id, region> upper_;
    std::vector<hook_entry<write_hook>> write_hooks_;
    std::vector<hook_entry<read_hook>> read_hooks_;
};

}  // namespace qsfpd::emu
