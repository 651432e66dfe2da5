#include "event_suppression.hpp"

#include <gtest/gtest.h>

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

TEST(EventSuppression, AConditionStillPresentWhenSuppressionEndsIsReportedAgain) {
    cycles c;
    // Flap into suppression, ending dark.
    for (int i = 0; i < 11; ++i)
        c.step(i % 2 == 0);
    ASSERT_TRUE(c.s.suppressed());
    ASSERT_TRUE(c.s.state());
    std::optional<event_suppression::outcome> exit;
    int quiet = 0;
    while (!exit && quiet < 200) {
        auto o = c.step(true);
        ++quiet;
        if (o.push) exit = o;
    }
    ASSERT_TRUE(exit);
    EXPECT_EQ(exit->push, 0);
    EXPECT_EQ(exit->message, "LOS event suppression mode exited, LOS not detected ");
    const auto next = c.step(true);
    EXPECT_EQ(next.push, 1);
    EXPECT_EQ(next.message, "LOS detected ");
    EXPECT_FALSE(c.step(true).push);   // and then quiet again
    EXPECT_EQ(c.s.transitions(), 0u);  // the report is not a transition
}

TEST(EventSuppression, AClearConditionAtTheEndOfSuppressionStaysQuiet) {
    cycles c;
    for (int i = 0; i < 12; ++i)
        c.step(i % 2 == 0);  // ends clear
    ASSERT_TRUE(c.s.suppressed());
    ASSERT_FALSE(c.s.state());
    int pushes = 0;
    for (int i = 0; i < 150; ++i)
        if (c.step(false).push) ++pushes;
    EXPECT_EQ(pushes, 1);  // the exit only
    EXPECT_FALSE(c.s.suppressed());
}

}  // namespace
