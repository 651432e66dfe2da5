#include <gtest/gtest.h>

#include <vector>

#include "module_memory.hpp"

namespace qsfpd::emu {
namespace {

using bytes = std::vector<std::uint8_t>;

module_memory::page_image filled(std::uint8_t base) {
    module_memory::page_image p{};
    for (std::size_t i = 0; i < p.size(); ++i)
        p[i] = static_cast<std::uint8_t>(base + i);
    return p;
}

bytes read(module_memory& m, std::uint8_t offset, std::size_t n) {
    bytes out(n);
    m.read(offset, out);
    return out;
}

// A CMIS-like memory: pages 00h, 01h, 10h and 11h in banks 0 and 1.
class ModuleMemory : public ::testing::Test {
  protected:
    ModuleMemory() {
        m.set_lower(filled(0));
        m.add_page({0, 0x00}, filled(0x10));
        m.add_page({0, 0x01}, filled(0x20));
        for (std::uint8_t bank : {0, 1}) {
            m.add_page({bank, 0x10}, filled(static_cast<std::uint8_t>(0x80 + bank)));
            m.add_page({bank, 0x11}, filled(static_cast<std::uint8_t>(0xa0 + bank)));
        }
        m.poke({}, 126, 0);
        m.poke({}, 127, 0);
    }
    module_memory m{paging::banked};
};

TEST_F(ModuleMemory, PageSelectMapsTheUpperHalfAndBankSelectOnlyBankedPages) {
    EXPECT_EQ(read(m, 128, 1)[0], 0x10);
    m.write(127, bytes{0x01});
    EXPECT_EQ(m.selected(), (page_id{0, 0x01}));
    EXPECT_EQ(read(m, 128, 2), (bytes{0x20, 0x21}));
    m.write(126, bytes{1, 0x11});  // bank 1, page 11h in one transaction
    EXPECT_EQ(m.selected(), (page_id{1, 0x11}));
    EXPECT_EQ(read(m, 128, 1)[0], 0xa1);
    m.write(127, bytes{0x01});  // page 01h is not banked: bank byte stays, page 01h bank 0 is seen
    EXPECT_EQ(m.peek({}, 126), 1);
    EXPECT_EQ(m.selected(), (page_id{0, 0x01}));
    EXPECT_EQ(read(m, 128, 1)[0], 0x20);
    // A read runs from 127 into the selected page and wraps after 255 to the lower page.
    EXPECT_EQ(read(m, 126, 3), (bytes{1, 0x01, 0x20}));
    EXPECT_EQ(read(m, 254, 4), (bytes{0x20 + 126, 0x20 + 127, 0, 1}));
    // A select written in a transaction applies to the bytes after it only.
    m.set_writable({0, 0x01}, 128, 129);
    m.set_writable({0, 0x00}, 128, 129);
    m.write(127, bytes{0x00, 0xee});
    EXPECT_EQ(m.peek({0, 0x01}, 128), 0xee);
    EXPECT_EQ(m.peek({0, 0x00}, 128), 0x10);
    EXPECT_EQ(m.selected(), (page_id{0, 0x00}));
}

TEST_F(ModuleMemory, WritesToReadOnlyBitsAreIgnoredAndLatchedFlagsClearWhenRead) {
    m.set_writable({}, 26, 26, 0x50);
    m.set_writable({0, 0x10}, 130, 130);
    m.write(20, bytes{0xaa});  // read-only byte
    EXPECT_EQ(m.peek({}, 20), 20);
    m.write(26, bytes{0xff});  // only bits 6 and 4 writable
    EXPECT_EQ(m.peek({}, 26), (26 & ~0x50) | 0x50);
    m.write(26, bytes{0x00});
    EXPECT_EQ(m.peek({}, 26), 26 & ~0x50);
    m.write(126, bytes{0, 0x10});
    m.write(130, bytes{0x0f, 0x0f});  // 130 writable, 131 read-only
    // 131 untouched, and 130 of the other bank.
    EXPECT_EQ((bytes{m.peek({0, 0x10}, 130), m.peek({0, 0x10}, 131), m.peek({1, 0x10}, 130)}),
              (bytes{0x0f, 0x80 + 3, 0x81 + 2}));
    // Latched flags clear when read, not when peeked: peek, peek, read, read.
    m.set_clear_on_read({1, 0x11}, 134, 152);
    m.latch({1, 0x11}, 147, 0x80);
    m.write(126, bytes{1, 0x11});
    const std::uint8_t latched = 0x80 | ((0xa1 + 19) & 0xff);
    EXPECT_EQ((bytes{m.peek({1, 0x11}, 147), m.peek({1, 0x11}, 147), read(m, 147, 1)[0],
                     read(m, 147, 1)[0]}),
              (bytes{latched, latched, latched, 0x00}));
}

TEST_F(ModuleMemory, HooksSeeHostWritesAndComputeReadsAndOtherPoliciesHoldTheirPages) {
    m.set_writable({}, 26, 26, 0xf0);
    std::vector<std::pair<std::uint8_t, std::uint8_t>> seen;
    m.on_write({}, 26, 26,
               [&](page_id, std::uint8_t off, std::uint8_t v) { seen.emplace_back(off, v); });
    int counter = 0;
    m.on_read({0, 0x01}, 200, 201, [&](page_id page, std::uint8_t off) {
        m.poke(page, off, static_cast<std::uint8_t>(++counter));
    });
    m.write(25, bytes{0x00, 0x0f, 0x00});  // the hook sees the raw value of byte 26
    EXPECT_EQ(seen, (std::vector<std::pair<std::uint8_t, std::uint8_t>>{{26, 0x0f}}));
    m.write(127, bytes{0x01});
    EXPECT_EQ(read(m, 199, 3), (bytes{0x20 + 71, 1, 2}));
    m.write(127, bytes{0x00});
    read(m, 200, 2);  // page 00h: the hook is for page 01h only
    EXPECT_EQ(counter, 2);
    // Other policies: an unsupported page reads FFh; a flat memory has no page select.
    module_memory ff(paging::paged, unsupported_page::read_ff);
    ff.add_page({0, 0}, filled(0x10));
    ff.write(127, bytes{0x03});
    EXPECT_EQ(ff.peek({}, 127), 0x03);
    EXPECT_EQ(read(ff, 200, 2), (bytes{0xff, 0xff}));
    ff.write(200, bytes{0x55});  // nothing to write into; no crash, nothing stored
    ff.write(127, bytes{0x00});
    EXPECT_EQ(read(ff, 200, 1)[0], static_cast<std::uint8_t>(0x10 + 72));

    module_memory flat(paging::flat);
    flat.add_page({}, filled(0x40));
    flat.set_writable({}, 127, 127);
    flat.write(127, bytes{0x02});  // an ordinary byte on a flat memory (SFP A0h)
    EXPECT_EQ(flat.peek({}, 127), 0x02);
    EXPECT_EQ(read(flat, 128, 1)[0], 0x40);
}

}  // namespace
}  // namespace qsfpd::emu
