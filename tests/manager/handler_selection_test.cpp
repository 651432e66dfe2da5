#include "handler_selection.hpp"

#include <gtest/gtest.h>

#include <deque>
#include <stdexcept>

namespace {
using namespace qsfpd;

// A module whose reads answer from scripts: each read takes the next value of its script, the
// last value repeating, so a second read can differ from the first.
struct scripted_module : identification_reader {
    std::deque<std::uint8_t> identifiers{0x11};
    std::uint8_t technology = 0x00;
    unsigned cmis_major = 4;
    bool is_coherent = false;
    std::deque<bool> pages_195{false};
    std::deque<bool> pages_221{false};
    std::uint8_t link_code = 0x00;
    int reads = 0;

    template <class T>
    static T next(std::deque<T>& script) {
        T v = script.front();
        if (script.size() > 1) script.pop_front();
        return v;
    }
    std::uint8_t identifier() override { return ++reads, next(identifiers); }
    std::uint8_t transmitter_technology() override { return ++reads, technology; }
    unsigned cmis_major_revision() override { return ++reads, cmis_major; }
    bool coherent() override { return ++reads, is_coherent; }
    bool page_20_21_implemented_195() override { return ++reads, next(pages_195); }
    bool page_20_21_implemented_221() override { return ++reads, next(pages_221); }
    std::uint8_t link_codes() override { return ++reads, link_code; }
};

struct row {
    const char* name;
    scripted_module module;
    handler_class expected;
    selection_warning warning;
};

scripted_module with(std::function<void(scripted_module&)> f) {
    scripted_module m;
    f(m);
    return m;
}

TEST(HandlerSelection, RowByRow) {
    using w = selection_warning;
    std::vector<row> rows = {
        {"sfp in a converter", with([](auto& m) {
             m.identifiers = {0x03};
             m.technology = 0xA0;
         }),
         handler_class::passive_converter, w::none},
        {"copper technology", with([](auto& m) { m.technology = 0xA0; }), handler_class::passive,
         w::unsupported_copper},
        {"other technology", with([](auto& m) { m.technology = 0x80; }), handler_class::passive,
         w::unsupported_copper},
        {"technology 0x9f is optical", with([](auto& m) { m.technology = 0x9F; }),
         handler_class::optical_4lane, w::unsupported_optical},
        {"cmis 4 coherent", with([](auto& m) {
             m.identifiers = {0x18};
             m.is_coherent = true;
         }),
         handler_class::dd_acacia_1lane, w::none},
        {"cmis 4 optical", with([](auto& m) { m.identifiers = {0x18}; }),
         handler_class::dd_optical_4lane, w::none},
        {"cmis 5 coherent", with([](auto& m) {
             m.identifiers = {0x18};
             m.cmis_major = 5;
             m.is_coherent = true;
         }),
         handler_class::dd_cmis5_1lane_hpower, w::none},
        {"cmis 5 optical", with([](auto& m) {
             m.identifiers = {0x18};
             m.cmis_major = 5;
         }),
         handler_class::dd_optical_4lane, w::none},
        {"cmis 3", with([](auto& m) {
             m.identifiers = {0x18};
             m.cmis_major = 3;
             m.is_coherent = true;
         }),
         handler_class::dd_optical_4lane, w::none},
        {"pages 20h-21h by byte 195", with([](auto& m) { m.pages_195 = {true}; }),
         handler_class::optical_1or2lane, w::none},
        {"pages 20h-21h by byte 221", with([](auto& m) { m.pages_221 = {true}; }),
         handler_class::optical_1or2lane, w::none},
        {"single-lane code", with([](auto& m) { m.link_code = 0x26; }),
         handler_class::optical_1lane, w::unsupported_optical},
        {"four-lane code", with([](auto& m) { m.link_code = 0x02; }), handler_class::optical_4lane,
         w::unsupported_optical},
        {"identifier becomes 0x18 on the second read", with([](auto& m) {
             m.identifiers = {0x0D, 0x18};
         }),
         handler_class::dd_acacia_1lane, w::unsupported_optical},
        {"a page flag set on the second read", with([](auto& m) {
             m.pages_221 = {false, true};
         }),
         handler_class::optical_1or2lane, w::unsupported_optical},
    };
    for (auto& r : rows) {
        const auto s = select_by_identification(r.module);
        EXPECT_EQ(s.handler, r.expected) << r.name;
        EXPECT_EQ(s.warning, r.warning) << r.name;
        EXPECT_EQ(s.converter, r.expected == handler_class::passive_converter) << r.name;
    }
}

TEST(HandlerSelection, UnknownCmisRevisionIsReported) {
    auto m = with([](auto& m) {
        m.identifiers = {0x18};
        m.cmis_major = 3;
    });
    const auto s = select_by_identification(m);
    EXPECT_TRUE(s.unsupported_cmis_revision);
    EXPECT_EQ(s.cmis_major, 3u);
    auto m5 = with([](auto& m) {
        m.identifiers = {0x18};
        m.cmis_major = 5;
    });
    EXPECT_FALSE(select_by_identification(m5).unsupported_cmis_revision);
}

TEST(HandlerSelection, ReadsOnlyWhatTheRulesNeed) {
    // A converter is decided on its identifier alone.
    auto sfp = with([](auto& m) { m.identifiers = {0x03}; });
    select_by_identification(sfp);
    EXPECT_EQ(sfp.reads, 1);
    // A QSFP-DD never has its page flags or link codes read.
    auto dd = with([](auto& m) {
        m.identifiers = {0x18};
        m.pages_195 = {true};
    });
    EXPECT_EQ(select_by_identification(dd).handler, handler_class::dd_optical_4lane);
    EXPECT_EQ(dd.reads, 4);
}

TEST(HandlerSelection, SingleLaneCodesAndNames) {
    int count = 0;
    for (unsigned code = 0; code < 256; ++code)
        count += is_single_lane_link_code(static_cast<std::uint8_t>(code));
    EXPECT_EQ(count, 16);
    EXPECT_TRUE(is_single_lane_link_code(0x3A));
    EXPECT_FALSE(is_single_lane_link_code(0x22));
    EXPECT_EQ(class_name(handler_class::dd_cmis5_1lane_hpower),
              "qsfp_dd_cmis5_1lane_hpower_device_handler");
    EXPECT_EQ(class_name(handler_class::passive_converter),
              "qsfp_passive_converter_device_handler");
}

}  // namespace
