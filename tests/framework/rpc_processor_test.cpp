#include "rpc_processor.hpp"

#include <gtest/gtest.h>

#include "../support/test_owner.hpp"

namespace {
using namespace qsfpd::test;
using namespace dh::api;

class RpcProcessor : public ::testing::Test {
  protected:
    RpcProcessor() {
        nodes.push_back(status_value<int>::create(db, "alarms/los/severity", owner, 0));
        nodes.push_back(
            volatile_value<&test_owner::get_temperature>::create(db, "data/temperature", owner));
        nodes.push_back(config_param<&test_owner::set_admin>::create(
            db, "config/adminStatus", owner, std::vector<std::string>{"up", "down"}));
        nodes.push_back(command<&test_owner::restart>::create(db, "command/restart", owner));
        nodes.push_back(
            volatile_value<&test_owner::get_runtime_failure>::create(db, "data/broken", owner));
    }
    std::string call(std::string_view line) { return processor.handle_line(line, session); }

    dh_db db;
    std::shared_ptr<test_owner> owner = std::make_shared<test_owner>();
    std::vector<std::shared_ptr<dh_db_leaf_node>> nodes;
    dh::rpc::request_processor processor{db};
    std::shared_ptr<recording_session> session = std::make_shared<recording_session>();
};

TEST_F(RpcProcessor, EveryMethod) {
    EXPECT_EQ(
        call(R"({"jsonrpc":"2.0","id":1,"method":"get","params":{"path":"data/temperature"}})"),
        R"({"jsonrpc":"2.0","id":1,"result":21.5})"
        "\n");
    EXPECT_EQ(
        call(
            R"({"jsonrpc":"2.0","id":"a","method":"set","params":{"path":"config/adminStatus","value":"up"}})"),
        R"({"jsonrpc":"2.0","id":"a","result":true})"
        "\n");
    EXPECT_EQ(owner->admin, "up");
    EXPECT_EQ(call(R"({"jsonrpc":"2.0","id":2,"method":"get","params":["config/adminStatus"]})"),
              R"({"jsonrpc":"2.0","id":2,"result":"up"})"
              "\n");
    EXPECT_EQ(
        call(
            R"({"jsonrpc":"2.0","id":3,"method":"run","params":{"path":"command/restart","argument":false}})"),
        R"({"jsonrpc":"2.0","id":3,"result":"restarted soft"})"
        "\n");
    EXPECT_EQ(call(R"({"jsonrpc":"2.0","id":4,"method":"list","params":{"prefix":"data"}})"),
              R"({"jsonrpc":"2.0","id":4,"result":[{"path":"data/broken","type":"volatile value"},)"
              R"({"path":"data/temperature","type":"volatile value"}]})"
              "\n");
    EXPECT_EQ(call(R"({"jsonrpc":"2.0","id":5,"method":"list"})")
                  .find(R"({"path":"alarms/los/severity","type":"status value"})"),
              std::string(R"({"jsonrpc":"2.0","id":5,"result":[)").size());
    EXPECT_EQ(
        call(R"({"jsonrpc":"2.0","id":6,"method":"info","params":{"path":"command/restart"}})"),
        R"~({"jsonrpc":"2.0","id":6,"result":{"path":"command/restart","description":"command value returning response (write)",)~"
        R"("type":"command","valueType":"bool","returnType":"unknown","capabilities":{"write":true}}})"
        "\n");
    EXPECT_EQ(
        call(
            R"({"jsonrpc":"2.0","id":7,"method":"subscribe","params":{"path":"alarms/los/severity"}})"),
        R"({"jsonrpc":"2.0","id":7,"result":0})"
        "\n");
    std::static_pointer_cast<status_value<int>>(nodes[0])->update(1);
    EXPECT_EQ(session->lines().size(), 1u);
    EXPECT_EQ(
        call(
            R"({"jsonrpc":"2.0","id":8,"method":"unsubscribe","params":{"path":"alarms/los/severity"}})"),
        R"({"jsonrpc":"2.0","id":8,"result":true})"
        "\n");
    std::static_pointer_cast<status_value<int>>(nodes[0])->update(0);
    EXPECT_EQ(session->lines().size(), 1u);
    const auto history = call(
        R"({"jsonrpc":"2.0","id":9,"method":"history","params":{"path":"alarms/los/severity"}})");
    EXPECT_NE(history.find(R"("value":0},{"time":")"), std::string::npos) << history;
    EXPECT_NE(history.find(R"("value":1},{"time":")"), std::string::npos) << history;
}

TEST_F(RpcProcessor, ErrorClasses) {
    struct row {
        const char* request;
        const char* response;
    };
    const row rows[] = {
        {R"({"jsonrpc":"2.0","id":1,"method":"get","params":{"path":"no/such"}})",
         R"({"jsonrpc":"2.0","id":1,"error":{"code":-2,"message":"No such node: no/such"}})"},
        {R"({"jsonrpc":"2.0","id":1,"method":"set","params":{"path":"config/adminStatus","value":"sideways"}})",
         R"({"jsonrpc":"2.0","id":1,"error":{"code":-22,"message":"Value \"sideways\" is not allowed, allowed values are: \"up\", \"down\""}})"},
        {R"({"jsonrpc":"2.0","id":1,"method":"get","params":{"path":"config/adminStatus"}})",
         R"({"jsonrpc":"2.0","id":1,"error":{"code":-61,"message":"Configuration parameter read before being set, path =config/adminStatus"}})"},
        {R"({"jsonrpc":"2.0","id":1,"method":"set","params":{"path":"data/temperature","value":1}})",
         R"({"jsonrpc":"2.0","id":1,"error":{"code":-95,"message":"Operation 'set' is not supported by volatile value"}})"},
        {R"({"jsonrpc":"2.0","id":1,"method":"get","params":{"path":"command/restart"}})",
         R"({"jsonrpc":"2.0","id":1,"error":{"code":-95,"message":"Operation 'get' is not supported by command"}})"},
        {R"({"jsonrpc":"2.0","id":1,"method":"subscribe","params":{"path":"data/temperature"}})",
         R"({"jsonrpc":"2.0","id":1,"error":{"code":-95,"message":"Operation 'subscribe' is not supported by volatile value"}})"},
        {R"({"jsonrpc":"2.0","id":1,"method":"history","params":{"path":"data/temperature"}})",
         R"({"jsonrpc":"2.0","id":1,"error":{"code":-95,"message":"Operation 'history' is not supported by volatile value"}})"},
        {R"({"jsonrpc":"2.0","id":1,"method":"get","params":{"path":"data/broken"}})",
         R"~({"jsonrpc":"2.0","id":1,"error":{"code":-5,"message":"Runtime error (bus gone)"}})~"},
        {R"({"jsonrpc":"2.0","id":1,"method":"frobnicate"})",
         R"({"jsonrpc":"2.0","id":1,"error":{"code":-32601,"message":"Method not found: frobnicate"}})"},
        {R"({"jsonrpc":"2.0","id":1,"method":"get","params":{"path":5}})",
         R"({"jsonrpc":"2.0","id":1,"error":{"code":-32602,"message":"Invalid params: 'path' must be a string"}})"},
        {R"({"jsonrpc":"2.0","id":1,"method":"set","params":{"path":"config/adminStatus"}})",
         R"({"jsonrpc":"2.0","id":1,"error":{"code":-32602,"message":"Invalid params: 'value' is required"}})"},
        {R"({"jsonrpc":"1.0","id":1,"method":"get"})",
         R"({"jsonrpc":"2.0","id":1,"error":{"code":-32600,"message":"Invalid Request: 'jsonrpc' must be \"2.0\""}})"},
        {R"({"jsonrpc":"2.0","id":{},"method":"get"})",
         R"({"jsonrpc":"2.0","id":null,"error":{"code":-32600,"message":"Invalid Request: 'id' must be a string, number or null"}})"},
        {R"({"jsonrpc":"2.0","id":1,"method":"get","params":"x"})",
         R"({"jsonrpc":"2.0","id":1,"error":{"code":-32600,"message":"Invalid Request: 'params' must be an object or an array"}})"},
        {R"("hello")",
         R"({"jsonrpc":"2.0","id":null,"error":{"code":-32600,"message":"Invalid Request: not an object"}})"},
        {R"([])",
         R"({"jsonrpc":"2.0","id":null,"error":{"code":-32600,"message":"Invalid Request: empty batch"}})"},
        {R"({"jsonrpc":"2.0",)",
         R"~({"jsonrpc":"2.0","id":null,"error":{"code":-32700,"message":"Parse error: Missing a name for object member. (at byte 17)"}})~"},
    };
    for (const auto& r : rows)
        EXPECT_EQ(call(r.request), std::string(r.response) + "\n") << r.request;
}

TEST_F(RpcProcessor, RefusedWriteKeepsTheStoredValue) {
    call(
        R"({"jsonrpc":"2.0","id":1,"method":"set","params":{"path":"config/adminStatus","value":"down"}})");
    call(
        R"({"jsonrpc":"2.0","id":1,"method":"set","params":{"path":"config/adminStatus","value":"sideways"}})");
    EXPECT_EQ(
        call(R"({"jsonrpc":"2.0","id":1,"method":"get","params":{"path":"config/adminStatus"}})"),
        R"({"jsonrpc":"2.0","id":1,"result":"down"})"
        "\n");
}

TEST_F(RpcProcessor, BatchesAndNotifications) {
    // Notifications (no id) are executed but not answered, errors included.
    EXPECT_EQ(
        call(
            R"({"jsonrpc":"2.0","method":"set","params":{"path":"config/adminStatus","value":"up"}})"),
        "");
    EXPECT_EQ(owner->admin, "up");
    EXPECT_EQ(call(R"({"jsonrpc":"2.0","method":"get","params":{"path":"no/such"}})"), "");
    EXPECT_EQ(call(R"([{"jsonrpc":"2.0","method":"get","params":{"path":"x"}}])"), "");
    EXPECT_EQ(
        call(R"([{"jsonrpc":"2.0","id":1,"method":"get","params":["alarms/los/severity"]},)"
             R"({"jsonrpc":"2.0","method":"get","params":["x"]},)"
             R"(7,)"
             R"({"jsonrpc":"2.0","id":2,"method":"get","params":["no/such"]}])"),
        R"([{"jsonrpc":"2.0","id":1,"result":0},)"
        R"({"jsonrpc":"2.0","id":null,"error":{"code":-32600,"message":"Invalid Request: not an object"}},)"
        R"({"jsonrpc":"2.0","id":2,"error":{"code":-2,"message":"No such node: no/such"}}])"
        "\n");
}

TEST_F(RpcProcessor, HostileInput) {
    const std::string with_nul("{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"list\"}\0garbage", 45);
    EXPECT_EQ(
        call(with_nul),
        R"~({"jsonrpc":"2.0","id":null,"error":{"code":-32700,"message":"Parse error: NUL character in the request (at byte 40)"}})~"
        "\n");
    std::string deep(100, '[');
    deep += std::string(100, ']');
    EXPECT_EQ(
        call(deep),
        R"({"jsonrpc":"2.0","id":null,"error":{"code":-32700,"message":"Parse error: nesting deeper than 64 levels"}})"
        "\n");
    std::string nested_ok(60, '[');
    nested_ok += std::string(60, ']');
    EXPECT_NE(call(nested_ok).find("-32600"), std::string::npos);  // parses, then is no request

    const std::string bad_utf8 =
        "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"get\",\"params\":{\"path\":\"\xC3\x28\"}}";
    EXPECT_NE(
        call(bad_utf8).find(R"("code":-32700,"message":"Parse error: Invalid encoding in string.)"),
        std::string::npos);
    // A very deep document far beyond any stack is refused without recursion.
    std::string huge(1 << 20, '[');
    EXPECT_NE(call(huge).find("nesting deeper"), std::string::npos);
}

TEST_F(RpcProcessor, OnlyWaitingRequestsLeaveTheNetworkThread) {
    auto blocks = [&](const char* line) {
        std::string buffer = std::string(line) + '\n';
        rapidjson::MemoryPoolAllocator<> values, stack;
        dh::rpc::request_document doc(&values, 256, &stack);
        std::string error;
        EXPECT_TRUE(processor.parse(buffer.data(), buffer.size() - 1, doc, error));
        return processor.may_block(doc);
    };
    EXPECT_FALSE(blocks(
        R"({"jsonrpc":"2.0","id":1,"method":"get","params":{"path":"alarms/los/severity"}})"));
    EXPECT_TRUE(
        blocks(R"({"jsonrpc":"2.0","id":1,"method":"get","params":{"path":"data/temperature"}})"));
    EXPECT_TRUE(blocks(
        R"({"jsonrpc":"2.0","id":1,"method":"set","params":{"path":"config/adminStatus","value":"up"}})"));
    EXPECT_TRUE(
        blocks(R"({"jsonrpc":"2.0","id":1,"method":"run","params":{"path":"command/restart"}})"));
    EXPECT_FALSE(blocks(R"({"jsonrpc":"2.0","id":1,"method":"list"})"));
    EXPECT_TRUE(blocks(
        R"([{"jsonrpc":"2.0","id":1,"method":"list"},{"jsonrpc":"2.0","id":2,"method":"run","params":["command/restart"]}])"));
}

}  // namespace

namespace {
TEST_F(RpcProcessor, ExtraMethodsBesideTheNodeMethods) {
    processor.add_method("echo", [](const dh::json_value* params) -> std::string {
        if (params == nullptr)
            throw dh_error(dh::rpc::invalid_params, "Invalid params: nothing to echo");
        return dh::to_json_text(*params);
    });
    EXPECT_EQ(call(R"({"jsonrpc":"2.0","id":1,"method":"echo","params":{"a":[1,2]}})"),
              R"({"jsonrpc":"2.0","id":1,"result":{"a":[1,2]}})"
              "\n");
    EXPECT_EQ(
        call(R"({"jsonrpc":"2.0","id":2,"method":"echo"})"),
        R"({"jsonrpc":"2.0","id":2,"error":{"code":-32602,"message":"Invalid params: nothing to echo"}})"
        "\n");
    EXPECT_EQ(call(R"({"jsonrpc":"2.0","id":3,"method":"get","params":["alarms/los/severity"]})"),
              R"({"jsonrpc":"2.0","id":3,"result":0})"
              "\n");
}

// A multi-byte sequence started in the last bytes of a line is refused before the parser would
// take its continuation bytes from past the end of the buffer.
TEST_F(RpcProcessor, CutOffUtf8SequenceAtTheEndIsRefused) {
    const std::string start = R"({"jsonrpc":"2.0","id":1,"method":"get","params":{"path":")";
    for (const std::string tail : {"\xF0", "\xF0\x9F", "\xE2\x82", "\xC3", "\xF0\xF0"})
        EXPECT_EQ(call(start + tail),
                  R"~({"jsonrpc":"2.0","id":null,"error":{"code":-32700,"message":"Parse error: )~"
                  R"~(UTF-8 sequence cut off at the end of the line (at byte 57)"}})~"
                  "\n")
            << tail.size() << " bytes";
    // A complete sequence at the end still reaches the parser, and its own verdict.
    EXPECT_NE(call(start + "\xE2\x82\xAC").find("Parse error: Missing a closing quotation mark"),
              std::string::npos);
}
}  // namespace
