#include "handler_selection.hpp"

#include <gtest/gtest.h>

#include <deque>
#include <tuple>

namespace {
using namespace qsfpd;

// What a module answers. A read takes the next value of its script, the last value repeating,
// so a second read can differ from the first.
struct answers {
    std::deque<std::uint8_t> identifiers{0x11};
    std::uint8_t technology = 0x00;
    unsigned cmis_major = 4;
    bool coherent = false;
    std::deque<bool> pages_195{false};
    std::deque<bool> pages_221{false};
    std::uint8_t link_code = 0x00;
};

struct scripted_module : identification_reader {
    explicit scripted_module(answers a) : a(std::move(a)) {}
    answers a;
    int reads = 0;

    template <class T>
    T next(std::deque<T>& script) {
        ++reads;
        T v = script.front();
        if (script.size() > 1) script.pop_front();
        return v;
    }
    std::uint8_t identifier() override { return next(a.identifiers); }
    std::uint8_t transmitter_technology() override { return ++reads, a.technology; }
    unsigned cmis_major_revision() override { return ++reads, a.cmis_major; }
    bool coherent() override { return ++reads, a.coherent; }
    bool page_20_21_implemented_195() override { return next(a.pages_195); }
    bool page_20_21_implemented_221() override { return next(a.pages_221); }
    std::uint8_t link_codes() override { return ++reads, a.link_code; }
};

// Each rule with the reads it takes: the rules read only what they need.
TEST(HandlerSelection, RowByRow) {
    using c = handler_class;
    const auto none = selection_warning::none, opt = selection_warning::unsupported_optical,
               copper = selection_warning::unsupported_copper;
    const std::deque<std::uint8_t> dd{0x18};
    // Name, answers, selection, reads.
    using row = std::tuple<const char*, answers, handler_selection, int>;
    for (const auto& [name, module, expected, reads] :
         {row{"sfp",
              {.identifiers = {3}, .technology = 0xA0},
              {c::passive_converter, none, true},
              1},
          row{"copper", {.technology = 0xA0}, {c::passive, copper}, 2},
          row{"other technology", {.technology = 0x80}, {c::passive, copper}, 2},
          row{"technology 9Fh is optical", {.technology = 0x9F}, {c::optical_4lane, opt}, 8},
          row{"cmis 4 coherent", {.identifiers = dd, .coherent = true}, {c::dd_acacia_1lane}, 4},
          row{"cmis 4 optical", {.identifiers = dd, .pages_195 = {true}}, {c::dd_optical_4lane}, 4},
          row{"cmis 5 coherent",
              {.identifiers = dd, .cmis_major = 5, .coherent = true},
              {c::dd_cmis5_1lane_hpower},
              4},
          row{"cmis 5 optical", {.identifiers = dd, .cmis_major = 5}, {c::dd_optical_4lane}, 4},
          row{"cmis 3 is reported",
              {.identifiers = dd, .cmis_major = 3, .coherent = true},
              {c::dd_optical_4lane, none, false, true, 3},
              3},
          row{"pages 20h-21h by byte 195", {.pages_195 = {true}}, {c::optical_1or2lane}, 4},
          row{"pages 20h-21h by byte 221", {.pages_221 = {true}}, {c::optical_1or2lane}, 4},
          row{"single-lane code", {.link_code = 0x26}, {c::optical_1lane, opt}, 8},
          row{"single-lane code 3Ah", {.link_code = 0x3A}, {c::optical_1lane, opt}, 8},
          row{"four-lane code", {.link_code = 0x22}, {c::optical_4lane, opt}, 8},
          row{"second identifier 18h", {.identifiers = {0x0D, 0x18}}, {c::dd_acacia_1lane, opt}, 7},
          row{"late page flag", {.pages_221 = {false, true}}, {c::optical_1or2lane, opt}, 7}}) {
        scripted_module m(module);
        EXPECT_EQ(select_by_identification(m), expected) << name;
        EXPECT_EQ(m.reads, reads) << name;
    }
}

TEST(HandlerSelection, SixteenSingleLaneCodes) {
    int count = 0;
    for (unsigned code = 0; code < 256; ++code)
        count += is_single_lane_link_code(static_cast<std::uint8_t>(code));
    EXPECT_EQ(count, 16);
}

}  // namespace
