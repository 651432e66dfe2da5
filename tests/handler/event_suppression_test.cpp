#include "event_suppression.hpp"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

namespace {

// One monitoring cycle: shift every tenth cycle, as the handler does, then update.
struct cycles {
    event_suppression s{"LOS"};
    unsigned cycle = 0;
    event_suppression::outcome step(bool raw) {
        if (++cycle >= 10) {
            cycle = 0;
            s.shift();
        }
        return s.update(raw);
    }
};

// Flapping into suppression, then steady: the exit publishes "not detected", and a condition
// still present is reported again on the very next cycle, once; a clear one stays quiet.
TEST(EventSuppression, AtTheExitAConditionStillPresentIsReportedAgainAClearOneStaysQuiet) {
    for (const bool dark : {true, false}) {
        SCOPED_TRACE(dark ? "ending dark" : "ending clear");
        cycles c;
        for (int i = 0; i < (dark ? 11 : 12); ++i)
            c.step(i % 2 == 0);
        ASSERT_TRUE(c.s.suppressed());
        ASSERT_EQ(c.s.state(), dark);
        std::vector<std::tuple<int, int, std::string>> pushed;  // cycle, value, message
        for (int i = 0; i < 200; ++i)
            if (const auto o = c.step(dark); o.push) pushed.emplace_back(i, *o.push, o.message);
        ASSERT_FALSE(pushed.empty());
        const int exit = std::get<0>(pushed[0]);
        decltype(pushed) expected = {
            {exit, 0, "LOS event suppression mode exited, LOS not detected "}};
        if (dark) expected.emplace_back(exit + 1, 1, "LOS detected ");
        EXPECT_EQ(pushed, expected);
        EXPECT_FALSE(c.s.suppressed());
        EXPECT_EQ(c.s.transitions(), 0u);  // the report is not a transition
    }
}

}  // namespace
