#include "module_memory.hpp"

#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace qsfpd::emu {

namespace {
constexpr std::uint8_t bank_select = 126;
constexpr std::uint8_t page_select = 127;
constexpr bool is_lower(std::uint8_t offset) {
    return offset < 128;
}
// CMIS banked pages: one instance per bank of eight lanes.
constexpr bool is_banked_page(std::uint8_t page) {
    return page >= 0x10 && page <= 0x1f;
}
}  // namespace

module_memory::module_memory(paging mode, unsupported_page policy) : mode_(mode), policy_(policy) {
    if (mode_ != paging::flat) lower_.write_mask[page_select] = 0xff;
    if (mode_ == paging::banked) lower_.write_mask[bank_select] = 0xff;
    if (mode_ == paging::flat) upper_.try_emplace(page_id{});
}

void module_memory::set_lower(const page_image& image) {
    lower_.data = image;
}

void module_memory::add_page(page_id page, const page_image& image) {
    if (mode_ != paging::banked || !is_banked_page(page.page)) page.bank = 0;
    upper_[page].data = image;
}

bool module_memory::has_page(page_id page) const {
    return upper_.contains(page);
}

std::vector<page_id> module_memory::pages() const {
    std::vector<page_id> out;
    for (const auto& [id, r] : upper_)
        out.push_back(id);
    return out;
}

module_memory::region& module_memory::region_for(page_id page, std::uint8_t offset) {
    return const_cast<region&>(std::as_const(*this).region_for(page, offset));
}

const module_memory::region& module_memory::region_for(page_id page, std::uint8_t offset) const {
    if (is_lower(offset)) return lower_;
    if (mode_ == paging::flat) page = {};
    auto it = upper_.find(page);
    if (it == upper_.end())
        throw std::out_of_range(
            fmt::format("module_memory: no page {:02x}h in bank {}", page.page, page.bank));
    return it->second;
}

void module_memory::set_writable(page_id page, std::uint8_t first, std::uint8_t last,
                                 std::uint8_t mask) {
    if (first > last || is_lower(first) != is_lower(last))
        throw std::invalid_argument("module_memory: a range must stay in lower or upper memory");
    auto& r = region_for(page, first);
    for (unsigned i = first; i <= last; ++i)
        r.write_mask[i & 0x7f] = mask;
}

void module_memory::set_clear_on_read(page_id page, std::uint8_t first, std::uint8_t last,
                                      std::uint8_t mask) {
    if (first > last || is_lower(first) != is_lower(last))
        throw std::invalid_argument("module_memory: a range must stay in lower or upper memory");
    auto& r = region_for(page, first);
    for (unsigned i = first; i <= last; ++i)
        r.clear_mask[i & 0x7f] = mask;
}

page_id module_memory::resolve(std::uint8_t bank, std::uint8_t page) const {
    switch (mode_) {
        case paging::flat:
            return {};
        case paging::paged:
            return {0, page};
        case paging::banked:
            return {is_banked_page(page) ? bank : std::uint8_t{0}, page};
    }
    return {};
}

bool module_memory::supported(std::uint8_t bank, std::uint8_t page) const {
    return upper_.contains(resolve(bank, page));
}

page_id module_memory::selected() const {
    return resolve(lower_.data[bank_select], lower_.data[page_select]);
}

bool module_memory::matches(page_id hook_page, std::uint8_t first, std::uint8_t last, page_id page,
                            std::uint8_t offset) {
    if (offset < first || offset > last) return false;
    return is_lower(offset) || hook_page == page;
}

void module_memory::read(std::uint8_t offset, std::span<std::uint8_t> out) {
    const page_id sel = selected();
    const bool mapped = upper_.contains(sel);
    std::uint8_t address = offset;
    for (auto& byte : out) {
        const page_id page = is_lower(address) ? page_id{} : sel;
        for (auto& h : read_hooks_)
            if (matches(h.page, h.first, h.last, page, address)) h.hook(page, address);
        if (!is_lower(address) && !mapped) {
            byte = 0xff;
        } else {
            auto& r = region_for(page, address);
            byte = r.data[address & 0x7f];
            r.data[address & 0x7f] &= static_cast<std::uint8_t>(~r.clear_mask[address & 0x7f]);
        }
        ++address;  // wraps 255 -> 0
    }
}

void module_memory::write(std::uint8_t offset, std::span<const std::uint8_t> data) {
    const page_id sel = selected();
    const bool mapped = upper_.contains(sel);
    const std::uint8_t old_bank = lower_.data[bank_select];
    const std::uint8_t old_page = lower_.data[page_select];
    bool select_written = false;
    struct written {
        page_id page;
        std::uint8_t offset;
        std::uint8_t value;
    };
    std::vector<written> done;
    done.reserve(data.size());
    std::uint8_t address = offset;
    for (const auto value : data) {
        const page_id page = is_lower(address) ? page_id{} : sel;
        if (is_lower(address) || mapped) {
            auto& r = region_for(page, address);
            auto& cell = r.data[address & 0x7f];
            const std::uint8_t mask = r.write_mask[address & 0x7f];
            cell = static_cast<std::uint8_t>((cell & ~mask) | (value & mask));
            if (mode_ != paging::flat &&
                (address == page_select || (mode_ == paging::banked && address == bank_select)))
                select_written = true;
            done.push_back({page, address, value});
        }
        ++address;
    }
    if (select_written && policy_ == unsupported_page::reject &&
        !supported(lower_.data[bank_select], lower_.data[page_select])) {
        lower_.data[bank_select] = old_bank;
        lower_.data[page_select] = old_page;
    }
    for (const auto& w : done)
        for (auto& h : write_hooks_)
            if (matches(h.page, h.first, h.last, w.page, w.offset))
                h.hook(w.page, w.offset, w.value);
}

std::uint8_t module_memory::peek(page_id page, std::uint8_t offset) const {
    return region_for(page, offset).data[offset & 0x7f];
}

void module_memory::poke(page_id page, std::uint8_t offset, std::uint8_t value) {
    region_for(page, offset).data[offset & 0x7f] = value;
}

std::uint16_t module_memory::peek16(page_id page, std::uint8_t offset) const {
    return static_cast<std::uint16_t>(peek(page, offset) << 8 |
                                      peek(page, static_cast<std::uint8_t>(offset + 1)));
}

void module_memory::poke16(page_id page, std::uint8_t offset, std::uint16_t value) {
    poke(page, offset, static_cast<std::uint8_t>(value >> 8));
    poke(page, static_cast<std::uint8_t>(offset + 1), static_cast<std::uint8_t>(value & 0xff));
}

void module_memory::latch(page_id page, std::uint8_t offset, std::uint8_t bits) {
    region_for(page, offset).data[offset & 0x7f] |= bits;
}

void module_memory::clear_bits(page_id page, std::uint8_t offset, std::uint8_t bits) {
    region_for(page, offset).data[offset & 0x7f] &= static_cast<std::uint8_t>(~bits);
}

bool module_memory::any_latched() const {
    auto latched = [](const region& r) {
        for (std::size_t i = 0; i < r.data.size(); ++i)
            if (r.data[i] & r.clear_mask[i]) return true;
        return false;
    };
    if (latched(lower_)) return true;
    for (const auto& [id, r] : upper_)
        if (latched(r)) return true;
    return false;
}

void module_memory::on_write(page_id page, std::uint8_t first, std::uint8_t last, write_hook hook) {
    write_hooks_.push_back({page, first, last, std::move(hook)});
}

void module_memory::on_read(page_id page, std::uint8_t first, std::uint8_t last, read_hook hook) {
    read_hooks_.push_back({page, first, last, std::move(hook)});
}

}  // namespace qsfpd::emu
