#include <gtest/gtest.h>

#include <cmath>

#include "../support/test_owner.hpp"
#include "dh_db.hpp"

namespace {
using namespace qsfpd::test;
using namespace dh::api;

std::string info_text(const dh_db_leaf_node& node) {
    rapidjson::Document scratch;
    return dh::to_json_text(node.get_info(scratch.GetAllocator()));
}

rapidjson::Document json(const char* text) {
    rapidjson::Document doc;
    doc.Parse<rapidjson::kParseNanAndInfFlag>(text);
    return doc;
}

// Runs `f` and returns the dh_error it throws.
template <class F>
dh_error error_of(F&& f) {
    try {
        f();
    } catch (const dh_error& e) {
        return e;
    }
    ADD_FAILURE() << "no error thrown";
    return dh_error(0, "");
}

class ValueNodes : public ::testing::Test {
  protected:
    dh_db db;
    std::shared_ptr<test_owner> owner = std::make_shared<test_owner>();
};

TEST_F(ValueNodes, VolatileValueCallsTheGetterOnEveryRead) {
    auto node = volatile_value<&test_owner::get_temperature>::create(db, "data/temperature", owner);
    EXPECT_EQ(node->get_text("data/temperature"), "21.5");
    owner->temperature = 30.25;
    EXPECT_EQ(node->get_text("data/temperature"), "30.25");
    EXPECT_EQ(owner->temperature_reads, 2);
    EXPECT_EQ(node->get_info(), "volatile value (read)");
    EXPECT_EQ(
        info_text(*node),
        R"~({"path":"data/temperature","description":"volatile value (read)","valueType":"double",)~"
        R"("capabilities":{"read":true},"type":"volatile value"})");
    EXPECT_TRUE(node->is_read_only());
    EXPECT_EQ(error_of([&] { node->set("data/temperature", json("1")); }).code(), -95);
}

TEST_F(ValueNodes, BoundArgumentsReachTheGetter) {
    auto lane2 =
        volatile_value<&test_owner::get_lane_bias>::create(db, "data/lane/2/txBias", owner, 2u);
    EXPECT_EQ(lane2->get_text(""), "20");
    EXPECT_NE(info_text(*lane2).find(R"("valueType":"32-bit unsigned integer")"),
              std::string::npos);
}

TEST_F(ValueNodes, GetterExceptionsBecomeErrorTextsByClass) {
    struct row {
        std::shared_ptr<dh_db_leaf_node> node;
        int code;
        std::string text;
    };
    std::vector<row> rows = {
        {volatile_value<&test_owner::get_runtime_failure>::create(db, "a", owner), -5,
         "Runtime error (bus gone)"},
        {volatile_value<&test_owner::get_system_failure>::create(db, "b", owner), -ENXIO,
         "System error (read: No such device or address)"},
        {volatile_value<&test_owner::get_logic_failure>::create(db, "c", owner), -5,
         "Logic error (bad state)"},
        {volatile_value<&test_owner::get_other_failure>::create(db, "d", owner), -5,
         "Generic error (std::bad_alloc)"},
        {volatile_value<&test_owner::get_unknown_failure>::create(db, "e", owner), -5,
         "Unknown error"},
        {volatile_value<&test_owner::get_dh_failure>::create(db, "f", owner), -5,
         "Module unplugged "},
    };
    for (const auto& r : rows) {
        auto e = error_of([&] { r.node->get_text(r.node->get_path()); });
        EXPECT_EQ(e.code(), r.code) << r.node->get_path();
        EXPECT_EQ(e.text(), r.text) << r.node->get_path();
    }
}

TEST_F(ValueNodes, NodeWhoseOwnerIsGoneAnswersObjectHasBeenRemoved) {
    auto node = volatile_value<&test_owner::get_temperature>::create(db, "data/temperature", owner);
    auto config = config_param<&test_owner::set_level>::create(db, "config/level", owner);
    owner.reset();
    EXPECT_EQ(error_of([&] { node->get_text(""); }).text(), "Object has been removed");
    EXPECT_EQ(error_of([&] { config->set("", json("1")); }).text(), "Object has been removed");
}

TEST_F(ValueNodes, ConfigParamKeepsOnlyAcceptedValues) {
    auto node = config_param<&test_owner::set_admin>::create(
        db, "config/adminStatus", owner, std::vector<std::string>{"up", "down", "refuse"});
    auto unset = error_of([&] { node->get_text(""); });
    EXPECT_EQ(unset.text(),
              "Configuration parameter read before being set, path =config/adminStatus");

    node->set("", json(R"("up")"));
    EXPECT_EQ(owner->admin, "up");
    EXPECT_EQ(node->get_text(""), R"("up")");

    // Outside the allowed values: refused before the setter runs, the value stays.
    auto refused = error_of([&] { node->set("", json(R"("sideways")")); });
    EXPECT_EQ(refused.code(), -22);
    EXPECT_EQ(refused.text(),
              R"(Value "sideways" is not allowed, allowed values are: "up", "down", "refuse")");
    EXPECT_EQ(owner->admin, "up");

    // The setter itself refuses: the stored value stays too.
    EXPECT_EQ(error_of([&] { node->set("", json(R"("refuse")")); }).code(), -22);
    EXPECT_EQ(node->get_text(""), R"("up")");

    // Wrong JSON type.
    EXPECT_EQ(error_of([&] { node->set("", json("5")); }).code(), -22);
    EXPECT_EQ(node->value(), "up");
}

TEST_F(ValueNodes, ConfigParamRangesAndInfo) {
    auto range = config_param<&test_owner::set_level>::create(
        db, "config/level", owner, min_max_range_t<std::int32_t>{-10, 10}, 3);
    EXPECT_EQ(
        info_text(*range),
        R"~({"path":"config/level","description":"config value (read,write,subscribe)","type":"config param",)~"
        R"("valueType":"32-bit signed integer","capabilities":{"read":true,"write":true,"subscribe":true},)"
        R"("defaultValue":3,"constraints":{"min":-10,"max":10}})");
    range->set("", json("10"));
    auto e = error_of([&] { range->set("", json("11")); });
    EXPECT_EQ(e.code(), -22);
    EXPECT_EQ(e.text(), "Value 11 is out of range, allowed range is [-10, 10]");
    EXPECT_EQ(owner->level, 10);
    EXPECT_EQ(error_of([&] { range->set("", json("2.5")); }).code(), -22);
    EXPECT_EQ(error_of([&] { range->set("", json("4294967296")); }).code(), -22);
    range->reset();  // back to the default through the setter
    EXPECT_EQ(owner->level, 3);
    EXPECT_EQ(range->get_text(""), "3");

    auto grid = config_param<&test_owner::set_ratio>::create(
        db, "config/frequency", owner, min_max_grid_range_t<double>{191.3, 196.1, "6.25 GHz"});
    EXPECT_NE(info_text(*grid).find(R"("constraints":{"min":191.3,"max":196.1,"grid":"6.25 GHz"})"),
              std::string::npos);
    EXPECT_EQ(error_of([&] { grid->set("", json("197.0")); }).text(),
              "Value 197.0 is out of range, allowed range is [191.3, 196.1] on grid 6.25 GHz");

    auto plain = config_param<&test_owner::set_ratio>::create(db, "config/ratio", owner);
    EXPECT_EQ(info_text(*plain).find("constraints"), std::string::npos);
    EXPECT_EQ(info_text(*plain).find("defaultValue"), std::string::npos);
    EXPECT_EQ(error_of([&] { plain->set("", json("NaN")); }).text(), "Argument value is NaN.");
    EXPECT_EQ(error_of([&] { plain->set("", json("-Infinity")); }).text(),
              "Argument value is infinite.");
}

TEST_F(ValueNodes, ConfigParamWithBoundLane) {
    auto lane3 = config_param<&test_owner::set_lane_enable>::create(db, "config/lane/3/txEnable",
                                                                    owner, bind_args(3u));
    lane3->set("", json("true"));
    EXPECT_TRUE(owner->lane_enabled.at(3));
    EXPECT_EQ(owner->lane_enabled.count(0), 0u);
}

TEST_F(ValueNodes, CommandConvertsItsArgumentAndReturnsTheResponse) {
    auto node = command<&test_owner::restart>::create(db, "command/restart", owner);
    rapidjson::Document scratch;
    dh::json_value out;
    node->run("", json("true"), scratch.GetAllocator(), out);
    EXPECT_EQ(dh::to_json_text(out), R"("restarted hard")");
    EXPECT_EQ(node->get_info(), "command value returning response (write)");
    EXPECT_EQ(
        info_text(*node),
        R"~({"path":"command/restart","description":"command value returning response (write)",)~"
        R"("type":"command","valueType":"bool","returnType":"unknown","capabilities":{"write":true}})");
    EXPECT_TRUE(node->write_returns_response());
    EXPECT_EQ(
        error_of([&] { node->run("", json(R"("yes")"), scratch.GetAllocator(), out); }).code(),
        -22);
    EXPECT_EQ(error_of([&] { node->get_text(""); }).code(), -95);

    auto clear = command<&test_owner::clear_counters>::create(db, "command/clear", owner);
    clear->run("", json("null"), scratch.GetAllocator(), out);
    EXPECT_TRUE(out.IsNull());
    EXPECT_EQ(owner->last_restart, "cleared");
}

TEST_F(ValueNodes, PushedValueNotifiesSubscribersOnChangeOnly) {
    auto node = pushed_volatile_value_impl<int>::create(db, "alarms/los/severity", owner);
    EXPECT_EQ(error_of([&] { node->get_text(""); }).text(), "Value has not been set");
    auto session = std::make_shared<recording_session>();
    rapidjson::Document scratch;
    dh::json_value current;
    node->subscribe(session, "alarms/los/severity", scratch.GetAllocator(), current);
    EXPECT_TRUE(current.IsNull());

    EXPECT_TRUE(node->update(1));
    node->update(1);
    node->update(0);
    EXPECT_EQ(
        session->lines(),
        (std::vector<std::string>{
            R"({"jsonrpc":"2.0","method":"changed","params":{"path":"alarms/los/severity","value":1}})"
            "\n",
            R"({"jsonrpc":"2.0","method":"changed","params":{"path":"alarms/los/severity","value":0}})"
            "\n"}));
    node->unsubscribe(session);
    node->update(1);
    EXPECT_EQ(session->lines().size(), 2u);
    EXPECT_EQ(node->get_info(), "pushed volatile value (read, subscribe)");
    EXPECT_NE(
        info_text(*node).find(
            R"("capabilities":{"read":true,"subscribe":true},"type":"pushed volatile value")"),
        std::string::npos);
}

TEST_F(ValueNodes, ClosedSessionsGetNothingAndAreForgotten) {
    auto node = status_value<bool>::create(db, "data/dhReady", owner, false);
    auto session = std::make_shared<recording_session>();
    rapidjson::Document scratch;
    dh::json_value current;
    node->subscribe(session, "data/dhReady", scratch.GetAllocator(), current);
    session->remember_subscription(node);
    EXPECT_FALSE(current.GetBool());
    EXPECT_EQ(node->subscriber_count(), 1u);
    session->close();
    EXPECT_EQ(node->subscriber_count(), 0u);
    node->update(true);
    EXPECT_TRUE(session->lines().empty());
}

TEST_F(ValueNodes, HistoryIsBoundedAndOrdered) {
    auto node = status_value<int>::create(db, "alarms/x/severity", owner);
    for (int i = 0; i < 40; ++i)
        node->update(i);
    auto history = node->history();
    ASSERT_EQ(history.size(), dh_db_event_node::history_capacity);
    EXPECT_EQ(history.front().value, "24");
    EXPECT_EQ(history.back().value, "39");
    for (std::size_t i = 1; i < history.size(); ++i)
        EXPECT_LE(history[i - 1].time, history[i].time);
}

TEST_F(ValueNodes, PolledValueAnswersFromTheLastPollAndKeepsFailures) {
    auto node = polled_volatile_value_impl<&test_owner::get_temperature>::create(
        db, "data/temperature", owner);
    EXPECT_TRUE(node->get_may_block());
    EXPECT_EQ(node->get_text(""), "21.5");  // first read polls
    EXPECT_FALSE(node->get_may_block());
    owner->temperature = 40.0;
    EXPECT_EQ(node->get_text(""), "21.5");  // no poll yet
    node->periodic_task(false);
    EXPECT_EQ(node->get_text(""), "40.0");
    EXPECT_EQ(owner->temperature_reads, 2);

    auto failing =
        polled_volatile_value_impl<&test_owner::get_runtime_failure>::create(db, "data/bad", owner);
    failing->periodic_task(false);
    EXPECT_EQ(error_of([&] { failing->get_text(""); }).text(), "Runtime error (bus gone)");
}

TEST_F(ValueNodes, HysteresisPublishesStepsAtOnceAndDriftAfterPersisting) {
    auto node =
        hysteresis_filtered_value<polled_volatile_value_impl<&test_owner::get_temperature>>::create(
            db, "data/temperature", owner, 0.5, 0.1);
    auto poll = [&](double t) {
        owner->temperature = t;
        node->periodic_task(false);
        return node->last_value().value();
    };
    EXPECT_EQ(poll(20.0), 20.0);   // first value
    EXPECT_EQ(poll(20.05), 20.0);  // noise
    EXPECT_EQ(poll(20.6), 20.6);   // a step of 0.6 is published at once
    EXPECT_EQ(poll(20.8), 20.6);   // drift of 0.2: held back...
    EXPECT_EQ(poll(20.8), 20.6);
    EXPECT_EQ(poll(20.8), 20.8);   // ...until it persisted for three polls
    EXPECT_EQ(poll(20.95), 20.8);  // drift again
    EXPECT_EQ(poll(20.85), 20.8);  // back to noise: the count restarts
    EXPECT_EQ(poll(20.95), 20.8);
    EXPECT_EQ(poll(20.95), 20.8);
    EXPECT_EQ(poll(20.95), 20.95);
    EXPECT_EQ(node->parameters(), (std::pair<double, double>{0.5, 0.1}));
}

TEST_F(ValueNodes, HysteresisOnPushedValuesUsesItsComparison) {
    // A counter that only matters when it moved by at least 100.
    auto node = hysteresis_filtered_value<pushed_volatile_value_impl<std::uint64_t>>::create(
        db, "data/errors", owner, 100, 100,
        [](const std::uint64_t& c, const std::uint64_t& p, const std::uint64_t& step,
           const std::uint64_t&) { return c - p >= step ? 2 : 0; });
    EXPECT_TRUE(node->update(5));
    EXPECT_FALSE(node->update(50));
    EXPECT_TRUE(node->update(105));
    EXPECT_EQ(node->get_text(""), "105");
}

TEST_F(ValueNodes, ConstAndStatusValues) {
    auto vendor = const_value<std::string>::create(db, "inventory/vendor", owner, "FINISAR CORP");
    EXPECT_EQ(vendor->get_text(""), R"("FINISAR CORP")");
    EXPECT_FALSE(vendor->get_may_block());
    EXPECT_EQ(
        info_text(*vendor),
        R"~({"path":"inventory/vendor","description":"const value (read)","valueType":"unknown",)~"
        R"("capabilities":{"read":true},"type":"const value"})");
    auto ready = status_value<bool>::create(db, "data/dhReady", owner, false);
    EXPECT_EQ(ready->get_info(), "status value (read,subscribe)");
    EXPECT_NE(info_text(*ready).find(R"("valueType":"bool")"), std::string::npos);
}

TEST_F(ValueNodes, AsyncValuesRunTheGetterInTheBackground) {
    auto leaf = async_volatile_value<dh_db_leaf_node, &test_owner::get_temperature>::create(
        db, "data/a", owner);
    EXPECT_EQ(leaf->get_text(""), "21.5");
    auto failing = async_volatile_value<dh_db_leaf_node, &test_owner::get_runtime_failure>::create(
        db, "data/b", owner);
    EXPECT_EQ(error_of([&] { failing->get_text(""); }).text(), "Runtime error (bus gone)");

    auto event = async_volatile_value<dh_db_event_node, &test_owner::get_temperature>::create(
        db, "data/c", owner);
    auto session = std::make_shared<recording_session>();
    rapidjson::Document scratch;
    dh::json_value current;
    event->subscribe(session, "data/c", scratch.GetAllocator(), current);
    event->periodic_task(false);
    // The result arrives from the background pool: wait for its notification.
    ASSERT_TRUE(session->wait_for_lines(1));
    EXPECT_EQ(event->get_text(""), "21.5");
}

TEST(ValueTraits, TypeNames) {
    EXPECT_STREQ(type_name<bool>(), "bool");
    EXPECT_STREQ(type_name<json_object>(), "object");
    EXPECT_STREQ(type_name<std::uint32_t>(), "32-bit unsigned integer");
    EXPECT_STREQ(type_name<std::int32_t>(), "32-bit signed integer");
    EXPECT_STREQ(type_name<std::uint64_t>(), "64-bit unsigned integer");
    EXPECT_STREQ(type_name<std::int64_t>(), "64-bit signed integer");
    EXPECT_STREQ(type_name<float>(), "float");
    EXPECT_STREQ(type_name<double>(), "double");
    EXPECT_STREQ(type_name<std::string>(), "unknown");
}

TEST(ValueTraits, IntegerConversionsCheckRange) {
    EXPECT_EQ(from_json<std::uint32_t>(json("4294967295")), 4294967295u);
    EXPECT_THROW(from_json<std::uint32_t>(json("-1")), json_value_conversion_error);
    EXPECT_THROW(from_json<std::int32_t>(json("2147483648")), json_value_conversion_error);
    EXPECT_EQ(from_json<std::int64_t>(json("-9223372036854775808")), INT64_MIN);
    EXPECT_THROW(from_json<float>(json("1e300")), json_value_conversion_error);
    EXPECT_EQ(to_json_text(json_object{R"({"a": [1, 2]})"}), R"({"a":[1,2]})");
    EXPECT_EQ(to_json_text(std::nan("")), "null");
}

}  // namespace
