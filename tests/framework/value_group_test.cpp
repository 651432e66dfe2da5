#include "value_group.hpp"

#include <gtest/gtest.h>

#include "../support/test_owner.hpp"
#include "grid_schedule.hpp"
#include "virtual_clock.hpp"

namespace {
using namespace std::chrono_literals;
using namespace qsfpd::test;

// Records the virtual instant of each poll and whether it was the first; `on_poll` runs once,
// in the poll.
class tick_recorder : public dh_db_leaf_node {
  public:
    using tick = std::pair<std::chrono::system_clock::time_point, bool>;
    explicit tick_recorder(std::shared_ptr<qsfpd::virtual_clock> clock)
        : clock_(std::move(clock)) {}
    void periodic_task(bool first) override {
        {
            std::lock_guard lock(mutex_);
            ticks_.emplace_back(clock_->wall_now(), first);
        }
        if (on_poll) std::exchange(on_poll, nullptr)();
    }
    std::string get_info() const override { return "recorder"; }
    std::string kind() const override { return "recorder"; }
    std::vector<tick> ticks() const {
        std::lock_guard lock(mutex_);
        return ticks_;
    }
    std::function<void()> on_poll;

  private:
    std::shared_ptr<qsfpd::virtual_clock> clock_;
    mutable std::mutex mutex_;
    std::vector<tick> ticks_;
};

TEST(GridSchedule, SlotOffsetsAndAnOverrunKeepingThePhase) {
    qsfpd::virtual_clock clock(std::chrono::system_clock::time_point{} + 1000s + 420ms);
    qsfpd::grid_schedule schedule(clock, 100ms, 3, 8);
    EXPECT_EQ(schedule.next() - clock.now(), 580ms + 37ms);  // next whole second + 37 ms
    const auto first = schedule.next();
    // A pass starting at `first` that takes 250 ms resumes on the grid, 300 ms after it.
    EXPECT_EQ(schedule.advance(first + 250ms), first + 300ms);
    EXPECT_EQ(schedule.advance(first + 300ms), first + 400ms);
    EXPECT_EQ(qsfpd::grid_schedule::slot_offset(5, 0), 0ms);  // no units, no offset
}

TEST(ValueGroup, CallsItsNodesOncePerPeriodOnTheUnitsSlot) {
    auto clock = std::make_shared<qsfpd::virtual_clock>(std::chrono::system_clock::time_point{} +
                                                        5000s + 250ms);
    auto recorder = std::make_shared<tick_recorder>(clock);
    dh::api::value_group group(1000ms, 3, 8, clock);
    group.add_value(recorder, 0);
    ASSERT_TRUE(clock->wait_for_sleepers(1));
    clock->run_for(3500ms);
    // Each on the 37 ms slot of a whole second; only the first says so.
    const auto at = std::chrono::system_clock::time_point{} + 5001s + 37ms;
    EXPECT_EQ(recorder->ticks(),
              (std::vector<tick_recorder::tick>{{at, true}, {at + 1s, false}, {at + 2s, false}}));
}

TEST(ValueGroup, ReleasedNodesAreDropped) {
    auto clock = std::make_shared<qsfpd::virtual_clock>();
    auto owner = std::make_shared<test_owner>();
    dh_db db;
    auto temperature = dh::api::polled_volatile_value_impl<&test_owner::get_temperature>::create(
        db, "data/temperature", owner);
    dh::api::value_group group(1000ms, 0, 0, clock);
    group.add_value(temperature, 1);
    ASSERT_TRUE(clock->wait_for_sleepers(1));
    clock->run_for(2000ms);
    EXPECT_EQ(owner->temperature_reads, 2);
    temperature.reset();
    clock->run_for(2000ms);
    EXPECT_EQ(owner->temperature_reads, 2);
    EXPECT_EQ(group.size(), 0u);
}

// A handler polled while its module is unplugged can be released from the poll itself, and
// with it the group that polls it.
TEST(ValueGroup, MayBeDestroyedByItsOwnPoll) {
    auto clock = std::make_shared<qsfpd::virtual_clock>();
    auto group = std::make_unique<dh::api::value_group>(1000ms, 0, 0, clock);
    auto first = std::make_shared<tick_recorder>(clock);
    auto second = std::make_shared<tick_recorder>(clock);
    first->on_poll = [&] { group.reset(); };
    group->add_value(first, 0);
    group->add_value(second, 1);
    ASSERT_TRUE(clock->wait_for_sleepers(1));
    clock->run_for(1500ms);
    EXPECT_EQ(group, nullptr);
    EXPECT_EQ(first->ticks().size(), 1u);
    EXPECT_EQ(second->ticks().size(), 0u);  // the stopped group visits nothing more
    clock->run_for(3s);
    EXPECT_EQ(first->ticks().size(), 1u);
}

}  // namespace
