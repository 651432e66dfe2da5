#include <gtest/gtest.h>

#include <future>

#include "../support/line_socket.hpp"
#include "../support/temp_dir.hpp"
#include "../support/test_owner.hpp"
#include "device_handler_client.hpp"
#include "virtual_clock.hpp"

namespace qsfpd::test {
// A command whose setter waits until the test lets it go: a tuning that takes seconds.
struct slow_owner : std::enable_shared_from_this<slow_owner> {
    std::promise<void> entered, release;
    std::string tune(const double&) {
        entered.set_value();
        release.get_future().wait();
        return "tuned";
    }
};
}  // namespace qsfpd::test

namespace {
using namespace qsfpd::test;
using namespace dh::api;

std::string get(const std::string& path, const std::string& id = "1") {
    return request("get", R"({"path":")" + path + R"("})", id);
}

class Server : public ::testing::Test {
  protected:
    void start(device_handler_api::limits limits = {}) {
        server.emplace(socket_path, limits);
        auto& db = api().get_db();
        severity = status_value<int>::create(db, "alarms/los/severity", owner, 0);
        nodes = {
            volatile_value<&test_owner::get_temperature>::create(db, "data/temperature", owner),
            config_param<&test_owner::set_admin>::create(db, "config/adminStatus", owner,
                                                         std::vector<std::string>{"up", "down"}),
            command<&slow_owner::tune>::create(db, "command/tune", slow),
        };
    }
    device_handler_api& api() { return *server->api; }
    line_socket tcp() { return line_socket(api().tcp_port()); }
    // Waits (bounded) for the server's thread to bring this count of the server into [low, high]
    // (the unfinished-input total counts buffer capacity, so it lies in a range).
    bool becomes(std::size_t (device_handler_api::*count)() const, std::size_t low,
                 std::optional<std::size_t> high = std::nullopt) {
        const auto in_range = [&] {
            const auto n = (api().*count)();
            return n >= low && n <= high.value_or(low);
        };
        for (int i = 0; i < 5000 && !in_range(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return in_range();
    }

    temp_dir dir{"server"};
    std::string socket_path = (dir.path() / "qsfp" / "3").string();
    std::shared_ptr<test_owner> owner = std::make_shared<test_owner>();
    std::shared_ptr<slow_owner> slow = std::make_shared<slow_owner>();
    std::shared_ptr<status_value<int>> severity;
    std::vector<std::shared_ptr<dh_db_leaf_node>> nodes;
    std::shared_ptr<qsfpd::virtual_clock> clock = std::make_shared<qsfpd::virtual_clock>();
    std::optional<running_server> server;
};

TEST_F(Server, PipelinedRequestsAreAnsweredInOrder) {
    start();
    auto client = tcp();
    client.send(get("alarms/los/severity", "2") + "\n" + get("no/such", "3") + "\r\n" +
                get("data/temperature", "4") + "\n");
    EXPECT_EQ(client.read_line(), result("0", "2"));
    EXPECT_EQ(client.read_line(), error(-2, "No such node: no/such", "3"));
    EXPECT_EQ(client.read_line(), result("21.5", "4"));
}

TEST_F(Server, SubscribersReceiveChangesUntilTheyUnsubscribe) {
    start();
    auto a = tcp();
    auto b = tcp();
    const std::string params = R"({"path":"alarms/los/severity"})";
    for (auto* s : {&a, &b})
        EXPECT_EQ(s->request(request("subscribe", params)), result("0"));
    severity->update(1);
    severity->update(1);  // no change, no notification
    const std::string changed =
        R"({"jsonrpc":"2.0","method":"changed","params":{"path":"alarms/los/severity","value":)";
    EXPECT_EQ(a.read_line(), changed + "1}}");
    EXPECT_EQ(b.read_line(), changed + "1}}");
    EXPECT_EQ(b.request(request("unsubscribe", params, "2")), result("true", "2"));
    severity->update(0);
    EXPECT_EQ(a.read_line(), changed + "0}}");
    EXPECT_EQ(b.request(get("alarms/los/severity", "3")), result("0", "3"));
    // A closed client leaves no subscription behind.
    { auto gone = std::move(a); }
    ASSERT_TRUE(becomes(&device_handler_api::connection_count, 1));
    EXPECT_EQ(severity->subscriber_count(), 0u);
}

TEST_F(Server, AWaitingCommandHoldsUpOnlyItsOwnConnection) {
    start();
    auto tuner = tcp();
    auto other = tcp();
    tuner.send(request("run", R"({"path":"command/tune","argument":193.1})") + "\n" +
               get("alarms/los/severity", "2") + "\n");
    slow->entered.get_future().wait();
    EXPECT_EQ(other.request(get("data/temperature")), result("21.5"));
    EXPECT_EQ(other.request(request("set", R"({"path":"config/adminStatus","value":"down"})", "5")),
              result("true", "5"));
    slow->release.set_value();
    EXPECT_EQ(tuner.read_line(), result(R"("tuned")"));
    EXPECT_EQ(tuner.read_line(), result("0", "2"));
}

// Finished or not, a line over the limit gets an error and its connection closes.
TEST_F(Server, ALineOverTheLimitClosesItsConnectionAlone) {
    start({.max_line_bytes = 1000, .clock = clock});
    auto unfinished = tcp();
    auto finished = tcp();
    auto bystander = tcp();
    unfinished.send(std::string(1010, 'x'));
    finished.send(get("data/temperature") + std::string(1000, ' ') + "\n");
    for (auto* s : {&unfinished, &finished}) {
        EXPECT_EQ(s->read_line(), error(-32600, "Request line longer than 1000 bytes", "null"));
        EXPECT_TRUE(s->closed_by_peer());
    }
    EXPECT_EQ(bystander.request(get("data/temperature")), result("21.5"));
}

TEST_F(Server, AClientThatNeverReadsIsDisconnected) {
    start({.max_output_bytes = 256 * 1024, .clock = clock});
    auto big = status_value<std::string>::create(api().get_db(), "data/big", owner);
    auto sleeper = tcp();
    EXPECT_EQ(sleeper.request(request("subscribe", R"({"path":"data/big"})")), result("null"));
    auto reader = tcp();
    ASSERT_TRUE(becomes(&device_handler_api::connection_count, 2));
    // Far more than the socket buffers and the limit together; the sleeper reads none of it.
    for (int i = 0; i < 4000 && api().connection_count() == 2; ++i)
        big->update(std::string(8192, 'a' + i % 26) + std::to_string(i));
    EXPECT_TRUE(becomes(&device_handler_api::connection_count, 1));
    EXPECT_EQ(reader.request(get("alarms/los/severity")), result("0"));
}

TEST_F(Server, AThousandConnectionsAtOnce) {
    start();
    std::vector<line_socket> clients;
    clients.reserve(1000);
    for (int i = 0; i < 1000; ++i)
        clients.push_back(tcp());
    for (int i = 0; i < 1000; ++i)
        clients[i].send(get("alarms/los/severity", std::to_string(i)) + "\n");
    int answered = 0;
    for (int i = 0; i < 1000; ++i)
        answered += clients[i].read_line() == result("0", std::to_string(i));
    EXPECT_EQ(answered, 1000);
    clients.clear();
    EXPECT_TRUE(becomes(&device_handler_api::connection_count, 0));
}

TEST_F(Server, ConnectionsBeyondTheLimitAreTurnedAway) {
    start({.max_connections = 2, .clock = clock});
    auto a = tcp();
    auto b = tcp();
    ASSERT_TRUE(becomes(&device_handler_api::connection_count, 2));
    auto c = tcp();
    EXPECT_EQ(c.read_line(), error(-32603, "Too many connections", "null"));
    EXPECT_TRUE(c.closed_by_peer());
    EXPECT_EQ(a.request(get("alarms/los/severity")), result("0"));
}

// Before the server is up, after it stopped and once it is back: the client reconnects itself.
TEST_F(Server, ReadObjectsConvertAnotherHandlersValuesAndOutliveTheServer) {
    auto client = std::make_shared<device_handler_client>(socket_path);
    device_handler_read_object<std::string> oper(client, "data/operStatus");
    device_handler_read_object<bool> missing(client, "data/missing");
    expect_error([&] { oper.read(); }, -111);
    for (int round = 0; round < 2; ++round) {
        start();
        nodes.push_back(
            status_value<std::string>::create(api().get_db(), "data/operStatus", owner, "up"));
        EXPECT_EQ(oper.read(), "up");
        EXPECT_EQ(missing.try_read(), std::nullopt);
        expect_error([&] { missing.read(); }, -2, "No such node: data/missing");
        server->stop();
        EXPECT_EQ(oper.try_read(), std::nullopt);
    }
}

// Texts from files and module memory may hold any bytes; clients get valid UTF-8.
TEST_F(Server, EveryTextSentIsValidUtf8) {
    start();
    auto& db = api().get_db();
    auto description =
        const_value<std::string>::create(db, "inventory/description", owner, "100G \xFF\xFE LR4");
    auto vendor = status_value<std::string>::create(db, "inventory/vendor", owner, "OK");
    auto client = tcp();
    EXPECT_EQ(client.request(get("inventory/description")),
              result("\"100G \xEF\xBF\xBD\xEF\xBF\xBD LR4\""));
    EXPECT_EQ(client.request(request("subscribe", R"({"path":"inventory/vendor"})", "2")),
              result(R"("OK")", "2"));
    vendor->update("FINISAR\xC3(\xE2\x82 \xED\xA0\x80\xF4\x90\x80\x80 \xC3\xA9");
    EXPECT_EQ(client.read_line(),
              "{\"jsonrpc\":\"2.0\",\"method\":\"changed\",\"params\":{\"path\":"
              "\"inventory/vendor\",\"value\":\"FINISAR\xEF\xBF\xBD(\xEF\xBF\xBD "
              "\xEF\xBF\xBD\xEF\xBF\xBD \xC3\xA9\"}}");
}

TEST_F(Server, UnfinishedLinesOfAllClientsTogetherAreBounded) {
    start({.max_pending_input_bytes = 64 * 1024, .small_line_bytes = 1024, .clock = clock});
    auto first = tcp();
    auto second = tcp();
    auto third = tcp();
    auto small = tcp();
    const std::string part(30 * 1024, ' ');
    first.send(part);
    ASSERT_TRUE(
        becomes(&device_handler_api::pending_input_bytes, part.size(), 2 * part.size() - 1));
    second.send(part);
    ASSERT_TRUE(
        becomes(&device_handler_api::pending_input_bytes, 2 * part.size(), 4 * part.size() - 1));
    third.send(part);  // beyond the total
    EXPECT_EQ(third.read_line(), error(-32603, "Server input buffer full", "null"));
    EXPECT_TRUE(third.closed_by_peer());
    EXPECT_TRUE(
        becomes(&device_handler_api::pending_input_bytes, 2 * part.size(), 4 * part.size() - 1));
    // A short request still fits, and the first clients keep their connections.
    small.send(R"({"jsonrpc":"2.0","id":7,)");
    small.send(R"("method":"get","params":{"path":"data/temperature"}})"
               "\n");
    EXPECT_EQ(small.read_line(), result("21.5", "7"));
    first.send(get("data/temperature") + "\n");
    EXPECT_EQ(first.read_line(), result("21.5"));
    EXPECT_TRUE(
        becomes(&device_handler_api::pending_input_bytes, part.size(), 2 * part.size() - 1));
}

TEST_F(Server, ALineLeftUnfinishedTooLongClosesItsConnection) {
    start({.partial_line_timeout = std::chrono::seconds(30),
           .stall_check_period = std::chrono::milliseconds(2),
           .clock = clock});
    auto slow_client = tcp();
    slow_client.send(R"({"jsonrpc":"2.0","id":1,)");
    ASSERT_TRUE(becomes(&device_handler_api::pending_input_bytes, 24, 4096));
    clock->advance(std::chrono::seconds(29));
    slow_client.send(R"("method":"get","params":{"path":"data/temperature"}})"
                     "\n");
    EXPECT_EQ(slow_client.read_line(), result("21.5"));
    slow_client.send(R"({"jsonrpc")");  // a new line: its own 30 s from now
    ASSERT_TRUE(becomes(&device_handler_api::pending_input_bytes, 10, 4096));
    clock->advance(std::chrono::seconds(30));
    EXPECT_EQ(slow_client.read_line(),
              error(-32600, "Request line not finished within 30000 ms", "null"));
    EXPECT_TRUE(slow_client.closed_by_peer());
    EXPECT_TRUE(becomes(&device_handler_api::pending_input_bytes, 0));
}

}  // namespace
