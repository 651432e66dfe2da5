#include "rpc_processor.hpp"

#include <gtest/gtest.h>

#include "../support/test_owner.hpp"

namespace {
using namespace qsfpd::test;
using namespace dh::api;

// {"jsonrpc":"2.0","id":id,"method":method,"params":params}; no id makes it a notification. The
// answers carry no line end, as inside a batch.
std::string request(const std::string& method, const std::string& params, std::string id = "1") {
    if (!id.empty()) id = R"("id":)" + id + ",";
    return R"({"jsonrpc":"2.0",)" + id + R"("method":")" + method + R"(","params":)" + params + "}";
}
std::string result(const std::string& value, const std::string& id = "1") {
    return R"({"jsonrpc":"2.0","id":)" + id + R"(,"result":)" + value + "}";
}
// `message` as it appears in JSON, escapes included.
std::string error(int code, const std::string& message, const std::string& id = "1") {
    return R"({"jsonrpc":"2.0","id":)" + id + R"(,"error":{"code":)" + std::to_string(code) +
           R"(,"message":")" + message + "\"}}";
}

class RpcProcessor : public ::testing::Test {
  protected:
    RpcProcessor() {
        nodes.push_back(
            volatile_value<&test_owner::get_temperature>::create(db, "data/temperature", owner));
        nodes.push_back(config_param<&test_owner::set_admin>::create(
            db, "config/adminStatus", owner, std::vector<std::string>{"up", "down"}));
        nodes.push_back(command<&test_owner::restart>::create(db, "command/restart", owner));
        nodes.push_back(
            volatile_value<&test_owner::get_runtime_failure>::create(db, "data/broken", owner));
    }
    std::string call(std::string_view line) { return processor.handle_line(line, session); }
    // Each request must be answered with exactly its line.
    void expect_answers(const std::vector<std::pair<std::string, std::string>>& rows) {
        for (const auto& [line, answer] : rows)
            EXPECT_EQ(call(line), answer + "\n") << line;
    }

    dh_db db;
    std::shared_ptr<test_owner> owner = std::make_shared<test_owner>();
    std::shared_ptr<status_value<int>> severity =
        status_value<int>::create(db, "alarms/los/severity", owner, 0);
    std::vector<std::shared_ptr<dh_db_leaf_node>> nodes;
    dh::rpc::request_processor processor{db};
    std::shared_ptr<recording_session> session = std::make_shared<recording_session>();
};

TEST_F(RpcProcessor, NodeMethodsAnswerWithTheirResults) {
    expect_answers({
        {request("get", R"({"path":"data/temperature"})"), result("21.5")},
        {request("set", R"({"path":"config/adminStatus","value":"up"})", R"("a")"),
         result("true", R"("a")")},
        {request("get", R"(["config/adminStatus"])", "2"), result(R"("up")", "2")},
        {request("run", R"({"path":"command/restart","argument":false})"),
         result(R"("restarted soft")")},
        {request("list", R"({"prefix":"data"})"),
         result(R"([{"path":"data/broken","type":"volatile value"},)"
                R"({"path":"data/temperature","type":"volatile value"}])")},
        {request("info", R"({"path":"command/restart"})"),
         result(
             R"~({"path":"command/restart","description":"command value returning response (write)",)~"
             R"("type":"command","valueType":"bool","returnType":"unknown","capabilities":{"write":true}})")},
    });
    EXPECT_EQ(owner->admin, "up");
    EXPECT_EQ(call(R"({"jsonrpc":"2.0","id":5,"method":"list"})")
                  .find(R"({"path":"alarms/los/severity","type":"status value"})"),
              std::string(R"({"jsonrpc":"2.0","id":5,"result":[)").size());
}

TEST_F(RpcProcessor, SubscriptionsNotifyUntilUnsubscribedAndHistoryKeepsEveryChange) {
    const std::string path = R"({"path":"alarms/los/severity"})";
    EXPECT_EQ(call(request("subscribe", path)), result("0") + "\n");
    severity->update(1);
    EXPECT_EQ(session->lines().size(), 1u);
    EXPECT_EQ(call(request("unsubscribe", path)), result("true") + "\n");
    severity->update(0);
    EXPECT_EQ(session->lines().size(), 1u);
    const auto history = call(request("history", path));
    EXPECT_NE(history.find(R"("value":0},{"time":")"), std::string::npos) << history;
    EXPECT_NE(history.find(R"("value":1},{"time":")"), std::string::npos) << history;
}

TEST_F(RpcProcessor, ErrorClasses) {
    expect_answers({
        {request("get", R"({"path":"no/such"})"), error(-2, "No such node: no/such")},
        {request("set", R"({"path":"config/adminStatus","value":"sideways"})"),
         error(-22, R"(Value \"sideways\" is not allowed, allowed values are: \"up\", \"down\")")},
        {request("get", R"({"path":"config/adminStatus"})"),
         error(-61, "Configuration parameter read before being set, path =config/adminStatus")},
        {request("set", R"({"path":"data/temperature","value":1})"),
         error(-95, "Operation 'set' is not supported by volatile value")},
        {request("run", R"({"path":"data/temperature"})"),
         error(-95, "Operation 'run' is not supported by volatile value")},
        {request("get", R"({"path":"command/restart"})"),
         error(-95, "Operation 'get' is not supported by command")},
        {request("subscribe", R"({"path":"data/temperature"})"),
         error(-95, "Operation 'subscribe' is not supported by volatile value")},
        {request("history", R"({"path":"data/temperature"})"),
         error(-95, "Operation 'history' is not supported by volatile value")},
        {request("get", R"({"path":"data/broken"})"), error(-5, "Runtime error (bus gone)")},
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
    EXPECT_TRUE(blocks(request("run", R"({"path":"command/restart"})")));
    const std::string list = R"({"jsonrpc":"2.0","id":1,"method":"list"})";
    EXPECT_FALSE(blocks(list));
    EXPECT_TRUE(blocks("[" + list + "," + request("run", R"(["command/restart"])", "2") + "]"));
}

TEST_F(RpcProcessor, ExtraMethodsBesideTheNodeMethods) {
    processor.add_method("echo", [](const dh::json_value* params) -> std::string {
        if (params == nullptr)
            throw dh_error(dh::rpc::invalid_params, "Invalid params: nothing to echo");
        return dh::to_json_text(*params);
    });
    expect_answers({
        {request("echo", R"({"a":[1,2]})"), result(R"({"a":[1,2]})")},
        {R"({"jsonrpc":"2.0","id":2,"method":"echo"})",
         error(-32602, "Invalid params: nothing to echo", "2")},
    });
}

}  // namespace
