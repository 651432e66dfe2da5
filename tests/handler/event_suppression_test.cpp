#include "event_suppression.hpp"

#include <gtest/gtest.h>

namespace {

// The optical handler's tests follow suppression cycle by cycle; what they cannot see is that the
// report of a condition still present at the exit is no transition: a new flap needs eleven
// transitions again before it is suppressed.
TEST(EventSuppression, TheReportAfterTheExitIsNoTransition) {
    event_suppression s{"LOS"};
    unsigned cycle = 0;
    const auto step = [&](bool raw) {  // a shift every tenth cycle, as the handler does
        if (++cycle % 10 == 0) s.shift();
        return s.update(raw);
    };
    for (int i = 0; i < 11; ++i)
        step(i % 2 == 0);
    ASSERT_TRUE(s.suppressed());
    while (s.suppressed() && cycle < 200)
        step(true);
    EXPECT_EQ(step(true).push, 1);
    EXPECT_EQ(s.transitions(), 0u);
}

}  // namespace
