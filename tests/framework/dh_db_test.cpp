#include "dh_db.hpp"
#include "rpc_processor.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>

#include "../support/line_socket.hpp"
#include "../support/test_owner.hpp"

namespace {
using namespace qsfpd::test;
using namespace dh::api;

rapidjson::Document json(const char* text) {
    rapidjson::Document doc;
    doc.Parse<rapidjson::kParseNanAndInfFlag>(text);
    return doc;
}

class DhDb : public ::testing::Test {
  protected:
    template <auto getter>
    std::shared_ptr<dh_db_leaf_node> volatile_node(const char* path) {
        return volatile_value<getter>::create(db, path, owner);
    }

    dh_db db;
    std::shared_ptr<test_owner> owner = std::make_shared<test_owner>();
};

TEST_F(DhDb, SplitPathRefusesEmptyComponents) {
    EXPECT_EQ(dh_db::split_path("data/lane/0/txEnable"),
              (std::vector<std::string>{"data", "lane", "0", "txEnable"}));
    EXPECT_EQ(dh_db::split_path("/inventory/vendor"),
              (std::vector<std::string>{"inventory", "vendor"}));
    for (const char* bad : {"", "/", "data//x", "data/"})
        expect_error([&] { dh_db::split_path(bad); }, -22);
}

TEST_F(DhDb, APathIsTakenUntilItsNodeIsReleased) {
    auto first = status_value<int>::create(db, "data/x", owner, 1);
    EXPECT_EQ(db.find("/data/x"), first);
    expect_error([&] { status_value<int>::create(db, "data/x", owner, 2); }, -17,
                 "Node already exists: data/x");
    EXPECT_EQ(db.find("data/x"), first);
    first.reset();
    EXPECT_EQ(db.find("data/x"), nullptr);
    EXPECT_EQ(db.size(), 0u);
    auto second = status_value<int>::create(db, "data/x", owner, 3);
    EXPECT_EQ(db.find("data/x"), second);
}

// A node is already unreachable while its destructor still runs; a handler may register the
// path anew in that moment, and the old node's unregistering must leave the new entry alone.
struct replaced_while_dying : dh_db_leaf_node {
    std::function<void()> on_destroy;
    ~replaced_while_dying() override { on_destroy(); }
    std::string get_info() const override { return "dying"; }
    std::string kind() const override { return "dying"; }
};

TEST_F(DhDb, ReplacedEntryIsNotRemovedByTheOldNodesDestructor) {
    auto first = std::make_shared<replaced_while_dying>();
    db.add_node(dh_db::split_path("data/x"), first);
    std::shared_ptr<status_value<int>> second;
    first->on_destroy = [&] { second = status_value<int>::create(db, "data/x", owner, 2); };
    first.reset();
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(db.find("data/x"), second);
}

TEST_F(DhDb, ListingMatchesWholeComponentsAndIsSorted) {
    std::vector<std::shared_ptr<dh_db_leaf_node>> keep;
    for (const char* path : {"data/temperature", "data/lane/1/rxPower", "data/lane/0/rxPower",
                             "database/x", "data-x/y", "config/adminStatus", "data"})
        keep.push_back(status_value<int>::create(db, path, owner, 0));
    auto paths = [&](std::string_view prefix) {
        std::string found;
        for (const auto& e : db.list(prefix))
            found += e.path + " ";
        return found;
    };
    EXPECT_EQ(paths("data"), "data data/lane/0/rxPower data/lane/1/rxPower data/temperature ");
    EXPECT_EQ(paths("data/lane/"), "data/lane/0/rxPower data/lane/1/rxPower ");
    EXPECT_EQ(paths(""),
              "config/adminStatus data data-x/y data/lane/0/rxPower data/lane/1/rxPower "
              "data/temperature database/x ");
}

TEST_F(DhDb, GettersAndSettersGetTheirBoundArgumentsOnEveryCall) {
    auto node = volatile_value<&test_owner::get_temperature>::create(db, "data/temperature", owner);
    EXPECT_EQ(node->get_text("data/temperature"), "21.5");
    owner->temperature = 30.25;
    EXPECT_EQ(node->get_text("data/temperature"), "30.25");
    EXPECT_EQ(owner->temperature_reads, 2);
    auto lane2 =
        volatile_value<&test_owner::get_lane_bias>::create(db, "data/lane/2/txBias", owner, 2u);
    EXPECT_EQ(lane2->get_text(""), "20");
    auto lane3 = config_param<&test_owner::set_lane_enable>::create(db, "config/lane/3/txEnable",
                                                                    owner, bind_args(3u));
    lane3->set("", json("true"));
    EXPECT_EQ(owner->lane_enabled, (std::map<unsigned, bool>{{3u, true}}));
}

TEST_F(DhDb, InfoNamesKindValueTypeCapabilitiesAndConstraints) {
    const std::pair<std::shared_ptr<dh_db_leaf_node>, std::string> rows[] = {
        {volatile_value<&test_owner::get_temperature>::create(db, "data/temperature", owner),
         R"~({"path":"data/temperature","description":"volatile value (read)","valueType":"double",)~"
         R"~("capabilities":{"read":true},"type":"volatile value"})~"},
        {config_param<&test_owner::set_level>::create(db, "config/level", owner,
                                                      min_max_range_t<std::int32_t>{-10, 10}, 3),
         R"~({"path":"config/level","description":"config value (read,write,subscribe)",)~"
         R"~("type":"config param","valueType":"32-bit signed integer",)~"
         R"~("capabilities":{"read":true,"write":true,"subscribe":true},)~"
         R"~("defaultValue":3,"constraints":{"min":-10,"max":10}})~"},
        {config_param<&test_owner::set_ratio>::create(
             db, "config/frequency", owner, min_max_grid_range_t<double>{191.3, 196.1, "6.25 GHz"}),
         R"~({"path":"config/frequency","description":"config value (read,write,subscribe)",)~"
         R"~("type":"config param","valueType":"double",)~"
         R"~("capabilities":{"read":true,"write":true,"subscribe":true},)~"
         R"~("constraints":{"min":191.3,"max":196.1,"grid":"6.25 GHz"}})~"},
        {config_param<&test_owner::set_ratio>::create(db, "config/ratio", owner),
         R"~({"path":"config/ratio","description":"config value (read,write,subscribe)",)~"
         R"~("type":"config param","valueType":"double",)~"
         R"~("capabilities":{"read":true,"write":true,"subscribe":true}})~"},
        {command<&test_owner::restart>::create(db, "command/restart", owner),
         R"~({"path":"command/restart","description":"command value returning response (write)",)~"
         R"("type":"command","valueType":"bool","returnType":"unknown","capabilities":{"write":true}})"},
        {status_value<bool>::create(db, "data/dhReady", owner, false),
         R"~({"path":"data/dhReady","description":"status value (read,subscribe)","valueType":"bool",)~"
         R"~("capabilities":{"read":true,"subscribe":true},"type":"status value"})~"},
    };
    rapidjson::Document scratch;
    for (const auto& [node, info] : rows)
        EXPECT_EQ(dh::to_json_text(node->get_info(scratch.GetAllocator())), info);
}

TEST_F(DhDb, GetterExceptionsBecomeErrorTextsByClass) {
    const std::tuple<std::shared_ptr<dh_db_leaf_node>, int, std::string> rows[] = {
        {volatile_node<&test_owner::get_runtime_failure>("a"), -5, "Runtime error (bus gone)"},
        {volatile_node<&test_owner::get_system_failure>("b"), -ENXIO,
         "System error (read: No such device or address)"},
        {volatile_node<&test_owner::get_logic_failure>("c"), -5, "Logic error (bad state)"},
        {volatile_node<&test_owner::get_other_failure>("d"), -5, "Generic error (std::bad_alloc)"},
        {volatile_node<&test_owner::get_unknown_failure>("e"), -5, "Unknown error"},
        {volatile_node<&test_owner::get_dh_failure>("f"), -5, "Module unplugged "},
    };
    for (const auto& [node, code, text] : rows)
        expect_error([&n = node] { n->get_text(n->get_path()); }, code, text);
}

TEST_F(DhDb, NodeWhoseOwnerIsGoneAnswersObjectHasBeenRemoved) {
    auto node = volatile_value<&test_owner::get_temperature>::create(db, "data/temperature", owner);
    auto config = config_param<&test_owner::set_level>::create(db, "config/level", owner);
    owner.reset();
    expect_error([&] { node->get_text(""); }, -19, "Object has been removed");
    expect_error([&] { config->set("", json("1")); }, -19, "Object has been removed");
}

TEST_F(DhDb, ConfigParamKeepsOnlyAcceptedValues) {
    auto node = config_param<&test_owner::set_admin>::create(
        db, "config/adminStatus", owner, std::vector<std::string>{"up", "down", "refuse"});
    expect_error([&] { node->get_text(""); }, -61,
                 "Configuration parameter read before being set, path =config/adminStatus");
    node->set("", json(R"("up")"));
    EXPECT_EQ(owner->admin, "up");
    EXPECT_EQ(node->get_text(""), R"("up")");
    // Outside the allowed values: refused before the setter runs, the value stays.
    expect_error([&] { node->set("", json(R"("sideways")")); }, -22,
                 R"(Value "sideways" is not allowed, allowed values are: "up", "down", "refuse")");
    EXPECT_EQ(owner->admin, "up");
    // The setter itself refuses, or the JSON has the wrong type: the stored value stays too.
    expect_error([&] { node->set("", json(R"("refuse")")); }, -22,
                 "Configuration refused by the module handler");
    expect_error([&] { node->set("", json("5")); }, -22, "Expected a string value");
    EXPECT_EQ(node->get_text(""), R"("up")");
}

TEST_F(DhDb, ConfigParamRangesAndDefault) {
    auto range = config_param<&test_owner::set_level>::create(
        db, "config/level", owner, min_max_range_t<std::int32_t>{-10, 10}, 3);
    range->set("", json("10"));
    expect_error([&] { range->set("", json("11")); }, -22,
                 "Value 11 is out of range, allowed range is [-10, 10]");
    EXPECT_EQ(owner->level, 10);
    expect_error([&] { range->set("", json("4294967296")); }, -22,
                 "Integer value out of range of 32-bit signed integer");
    range->reset();  // back to the default through the setter
    EXPECT_EQ(owner->level, 3);
    EXPECT_EQ(range->get_text(""), "3");

    auto grid = config_param<&test_owner::set_ratio>::create(
        db, "config/frequency", owner, min_max_grid_range_t<double>{191.3, 196.1, "6.25 GHz"});
    expect_error([&] { grid->set("", json("197.0")); }, -22,
                 "Value 197.0 is out of range, allowed range is [191.3, 196.1] on grid 6.25 GHz");
    auto plain = config_param<&test_owner::set_ratio>::create(db, "config/ratio", owner);
    expect_error([&] { plain->set("", json("NaN")); }, -22, "Argument value is NaN.");
    expect_error([&] { plain->set("", json("-Infinity")); }, -22, "Argument value is infinite.");
}

// Commands with an argument and a response are run in the protocol and qsfpctl tests.
TEST_F(DhDb, CommandWithoutArgumentOrResponseAnswersNull) {
    rapidjson::Document scratch;
    dh::json_value out;
    auto clear = command<&test_owner::clear_counters>::create(db, "command/clear", owner);
    clear->run("", json("null"), scratch.GetAllocator(), out);
    EXPECT_TRUE(out.IsNull());
    EXPECT_EQ(owner->last_restart, "cleared");
}

TEST_F(DhDb, PolledValueAnswersFromTheLastPollAndKeepsFailures) {
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
    expect_error([&] { failing->get_text(""); }, -5, "Runtime error (bus gone)");
}

TEST_F(DhDb, HysteresisPublishesStepsAtOnceAndDriftAfterPersisting) {
    auto node =
        hysteresis_filtered_value<polled_volatile_value_impl<&test_owner::get_temperature>>::create(
            db, "data/temperature", owner, 0.5, 0.1);
    // {polled, published}: the first value; noise; a step of 0.6 at once; a drift of 0.2 held
    // back until it persisted for three polls; drift again, where noise restarts the count.
    const std::pair<double, double> polls[] = {
        {20.0, 20.0},  {20.05, 20.0}, {20.6, 20.6},  {20.8, 20.6},  {20.8, 20.6},   {20.8, 20.8},
        {20.95, 20.8}, {20.85, 20.8}, {20.95, 20.8}, {20.95, 20.8}, {20.95, 20.95},
    };
    for (std::size_t i = 0; i < std::size(polls); ++i) {
        owner->temperature = polls[i].first;
        node->periodic_task(false);
        EXPECT_EQ(node->last_value(), polls[i].second) << "poll " << i;
    }
}

TEST_F(DhDb, HysteresisOnPushedValuesUsesItsComparison) {
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

TEST_F(DhDb, AsyncValuesRunTheGetterInTheBackground) {
    auto leaf = async_volatile_value<dh_db_leaf_node, &test_owner::get_temperature>::create(
        db, "data/a", owner);
    EXPECT_EQ(leaf->get_text(""), "21.5");
    auto failing = async_volatile_value<dh_db_leaf_node, &test_owner::get_runtime_failure>::create(
        db, "data/b", owner);
    expect_error([&] { failing->get_text(""); }, -5, "Runtime error (bus gone)");

    auto event = async_volatile_value<dh_db_event_node, &test_owner::get_temperature>::create(
        db, "data/c", owner);
    auto session = std::make_shared<recording_session>();
    rapidjson::Document scratch;
    dh::json_value current;
    event->subscribe(session, event->get_path(), scratch.GetAllocator(), current);
    event->periodic_task(false);
    // The result arrives from the background pool: wait for its notification.
    ASSERT_TRUE(session->wait_for_lines(1));
    EXPECT_EQ(event->get_text(""), "21.5");
}

TEST(ValueTraits, ConversionsCheckTypeAndRangeAndNameTheType) {
    EXPECT_EQ(from_json<std::uint32_t>(json("4294967295")), 4294967295u);
    EXPECT_EQ(from_json<std::int64_t>(json("-9223372036854775808")), INT64_MIN);
    const std::pair<std::function<void()>, std::string> refused[] = {
        {[] { from_json<std::uint32_t>(json("-1")); }, "32-bit unsigned integer"},
        {[] { from_json<std::int32_t>(json("2147483648")); }, "32-bit signed integer"},
        {[] { from_json<std::uint64_t>(json("-1")); }, "64-bit unsigned integer"},
        {[] { from_json<std::int64_t>(json("9223372036854775808")); }, "64-bit signed integer"},
    };
    for (const auto& [convert, type] : refused)
        expect_error(convert, -22, "Integer value out of range of " + type);
    expect_error([] { from_json<float>(json("1e300")); }, -22, "Number out of range of float");
    EXPECT_EQ(to_json_text(json_object{R"({"a": [1, 2]})"}), R"({"a":[1,2]})");
    EXPECT_EQ(to_json_text(std::nan("")), "null");
}

// The protocol face of the store.
class RpcProcessor : public DhDb {
  protected:
    RpcProcessor() {
        nodes = {
            volatile_node<&test_owner::get_temperature>("data/temperature"),
            config_param<&test_owner::set_admin>::create(db, "config/adminStatus", owner,
                                                         std::vector<std::string>{"up", "down"}),
            command<&test_owner::restart>::create(db, "command/restart", owner),
        };
    }
    std::string call(std::string_view line) { return processor.handle_line(line, session); }
    // Each request must be answered with exactly its line.
    void expect_answers(const std::vector<std::pair<std::string, std::string>>& rows) {
        for (const auto& [line, answer] : rows)
            EXPECT_EQ(call(line), answer + "\n") << line;
    }

    std::shared_ptr<status_value<int>> severity =
        status_value<int>::create(db, "alarms/los/severity", owner, 0);
    std::vector<std::shared_ptr<dh_db_leaf_node>> nodes;
    dh::rpc::request_processor processor{db};
    std::shared_ptr<recording_session> session = std::make_shared<recording_session>();
};

TEST_F(RpcProcessor, NodeMethodsAnswerWithTheirResults) {
    expect_answers({
        {request("set", R"({"path":"config/adminStatus","value":"up"})", R"("a")"),
         result("true", R"("a")")},
        {request("get", R"(["config/adminStatus"])", "2"), result(R"("up")", "2")},
        {request("run", R"({"path":"command/restart","argument":false})"),
         result(R"("restarted soft")")},
    });
    EXPECT_EQ(owner->admin, "up");
    EXPECT_EQ(call(R"({"jsonrpc":"2.0","id":5,"method":"list"})")
                  .find(R"({"path":"alarms/los/severity","type":"status value"})"),
              std::string(R"({"jsonrpc":"2.0","id":5,"result":[)").size());
}

// Subscribing and unsubscribing are the server's tests' business, over real connections.
TEST_F(RpcProcessor, HistoryKeepsTheLastChangesOldestFirst) {
    for (int i = 1; i < 40; ++i)
        severity->update(i);
    const auto text = call(request("history", R"({"path":"alarms/los/severity"})"));
    rapidjson::Document answer;
    answer.Parse(text.c_str());
    ASSERT_TRUE(answer.IsObject() && answer.HasMember("result")) << text;
    const auto history = answer["result"].GetArray();
    ASSERT_EQ(history.Size(), dh_db_event_node::history_capacity) << text;
    for (rapidjson::SizeType i = 0; i < history.Size(); ++i)  // of 0 to 39, the last ones
        EXPECT_EQ(history[i]["value"].GetInt(), int(40 - history.Size() + i)) << text;
    EXPECT_TRUE(history[0]["time"].IsString()) << text;
}

TEST_F(RpcProcessor, ErrorClasses) {
    expect_answers({
        {request("set", R"({"path":"data/temperature","value":1})"),
         error(-95, "Operation 'set' is not supported by volatile value")},
        {request("run", R"({"path":"data/temperature"})"),
         error(-95, "Operation 'run' is not supported by volatile value")},
        {request("get", R"({"path":"command/restart"})"),
         error(-95, "Operation 'get' is not supported by command")},
        {request("history", R"({"path":"data/temperature"})"),
         error(-95, "Operation 'history' is not supported by volatile value")},
        {R"({"jsonrpc":"2.0","id":1,"method":"frobnicate"})",
         error(-32601, "Method not found: frobnicate")},
        {request("get", R"({"path":5})"), error(-32602, "Invalid params: 'path' must be a string")},
        {request("set", R"({"path":"config/adminStatus"})"),
         error(-32602, "Invalid params: 'value' is required")},
        {request("get", R"("x")"),
         error(-32600, "Invalid Request: 'params' must be an object or an array")},
        {R"({"jsonrpc":"1.0","id":1,"method":"get"})",
         error(-32600, R"(Invalid Request: 'jsonrpc' must be \"2.0\")")},
        {R"({"jsonrpc":"2.0","id":{},"method":"get"})",
         error(-32600, "Invalid Request: 'id' must be a string, number or null", "null")},
        {R"("hello")", error(-32600, "Invalid Request: not an object", "null")},
        {"[]", error(-32600, "Invalid Request: empty batch", "null")},
        {R"({"jsonrpc":"2.0",)",
         error(-32700, "Parse error: Missing a name for object member. (at byte 17)", "null")},
    });
}

TEST_F(RpcProcessor, BatchesAndNotifications) {
    // Notifications (no id) are executed but not answered, errors included.
    EXPECT_EQ(call(request("set", R"({"path":"config/adminStatus","value":"up"})", "")), "");
    EXPECT_EQ(owner->admin, "up");
    EXPECT_EQ(call(request("get", R"({"path":"no/such"})", "")), "");
    EXPECT_EQ(call("[" + request("get", R"({"path":"x"})", "") + "]"), "");
    EXPECT_EQ(
        call("[" + request("get", R"(["alarms/los/severity"])") + "," +
             request("get", R"(["x"])", "") + ",7," + request("get", R"(["no/such"])", "2") + "]"),
        "[" + result("0") + "," + error(-32600, "Invalid Request: not an object", "null") + "," +
            error(-2, "No such node: no/such", "2") + "]\n");
}

TEST_F(RpcProcessor, HostileInput) {
    const std::string with_nul("{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"list\"}\0garbage", 45);
    expect_answers({
        {with_nul, error(-32700, "Parse error: NUL character in the request (at byte 40)", "null")},
        {std::string(100, '[') + std::string(100, ']'),
         error(-32700, "Parse error: nesting deeper than 64 levels", "null")},
    });
    // Parses, then is no request.
    EXPECT_NE(call(std::string(60, '[') + std::string(60, ']')).find("-32600"), std::string::npos);
    const std::string bad_utf8 = request("get", "{\"path\":\"\xC3\x28\"}");
    EXPECT_NE(
        call(bad_utf8).find(R"("code":-32700,"message":"Parse error: Invalid encoding in string.)"),
        std::string::npos);
    // A very deep document far beyond any stack is refused without recursion.
    EXPECT_NE(call(std::string(1 << 20, '[')).find("nesting deeper"), std::string::npos);
    // A multi-byte sequence started in the last bytes of a line is refused before the parser
    // would take its continuation bytes from past the end of the buffer; a complete one passes.
    const std::string start = R"({"jsonrpc":"2.0","id":1,"method":"get","params":{"path":")";
    for (const std::string tail : {"\xF0", "\xF0\x9F", "\xE2\x82", "\xC3", "\xF0\xF0"})
        EXPECT_NE(
            call(start + tail).find("UTF-8 sequence cut off at the end of the line (at byte 57)"),
            std::string::npos)
            << tail.size() << " bytes";
    EXPECT_NE(call(start + "\xE2\x82\xAC").find("Parse error: Missing a closing quotation mark"),
              std::string::npos);
}

TEST_F(RpcProcessor, OnlyWaitingRequestsLeaveTheNetworkThread) {
    auto blocks = [&](const std::string& line) {
        std::string buffer = line + '\n';
        rapidjson::MemoryPoolAllocator<> values, stack;
        dh::rpc::request_document doc(&values, 256, &stack);
        std::string error;
        EXPECT_TRUE(processor.parse(buffer.data(), buffer.size() - 1, doc, error));
        return processor.may_block(doc);
    };
    EXPECT_FALSE(blocks(request("get", R"({"path":"alarms/los/severity"})")));
    EXPECT_TRUE(blocks(request("get", R"({"path":"data/temperature"})")));
    EXPECT_TRUE(blocks(request("set", R"({"path":"config/adminStatus","value":"up"})")));
    const std::string list = R"({"jsonrpc":"2.0","id":1,"method":"list"})";
    EXPECT_FALSE(blocks(list));
    EXPECT_TRUE(blocks("[" + list + "," + request("run", R"(["command/restart"])", "2") + "]"));
}

}  // namespace
