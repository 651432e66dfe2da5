#include <gtest/gtest.h>

#include <filesystem>
#include <future>
#include <thread>

#include "../support/line_socket.hpp"
#include "../support/test_owner.hpp"
#include "device_handler_api.hpp"
#include "device_handler_client.hpp"
#include "virtual_clock.hpp"

namespace qsfpd::test {
// A command whose setter waits until the test lets it go: a tuning that takes seconds.
struct slow_owner : std::enable_shared_from_this<slow_owner> {
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::promise<void> entered;
    std::string tune(const double&) {
        entered.set_value();
        released.wait();
        return "tuned";
    }
};

// Plays the gearbox handler whose operational status a cage handler reads.
struct gearbox : std::enable_shared_from_this<gearbox> {
    std::string get_oper_status() { return "up"; }
};
}  // namespace qsfpd::test

namespace {
using namespace qsfpd::test;
using namespace dh::api;

class Server : public ::testing::Test {
  protected:
    void start(device_handler_api::limits limits = {}) {
        dir = std::filesystem::temp_directory_path() /
              ("qsfpd-server-test-" + std::to_string(::getpid()) + "-" + std::to_string(counter++));
        socket_path = (dir / "handlers" / "qsfp" / "3").string();
        server = std::make_unique<device_handler_api>(socket_path, 0, false, limits, false);
        auto& db = server->get_db();
        severity = status_value<int>::create(db, "alarms/los/severity", owner, 0);
        nodes.push_back(
            volatile_value<&test_owner::get_temperature>::create(db, "data/temperature", owner));
        nodes.push_back(config_param<&test_owner::set_admin>::create(
            db, "config/adminStatus", owner, std::vector<std::string>{"up", "down"}));
        nodes.push_back(command<&slow_owner::tune>::create(db, "command/tune", slow));
        thread = std::thread([this] { server->start(); });
    }
    void TearDown() override {
        if (server) {
            server->stop();
            thread.join();
            server.reset();
        }
        std::filesystem::remove_all(dir);
    }
    // Waits (bounded) until the server has `n` connections.
    bool connections_become(std::size_t n) {
        for (int i = 0; i < 5000; ++i) {
            if (server->connection_count() == n) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return false;
    }
    static std::string get_request(const char* path, int id = 1) {
        return std::string(R"({"jsonrpc":"2.0","id":)") + std::to_string(id) +
               R"(,"method":"get","params":{"path":")" + path + R"("}})";
    }

    // Waits (bounded) until the memory held for the clients' unfinished lines is at least `low`
    // (and at most `high`) bytes.
    bool pending_input_becomes(std::size_t low, std::size_t high) {
        for (int i = 0; i < 5000; ++i) {
            const auto held = server->pending_input_bytes();
            if (held >= low && held <= high) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return false;
    }

    static inline int counter = 0;
    std::filesystem::path dir;
    std::string socket_path;
    std::shared_ptr<test_owner> owner = std::make_shared<test_owner>();
    std::shared_ptr<slow_owner> slow = std::make_shared<slow_owner>();
    std::unique_ptr<device_handler_api> server;
    std::shared_ptr<status_value<int>> severity;
    std::vector<std::shared_ptr<dh_db_leaf_node>> nodes;
    std::thread thread;
};

TEST_F(Server, TcpAndUnixSocketSpeakTheSameProtocol) {
    start();
    EXPECT_TRUE(std::filesystem::is_socket(socket_path));
    auto tcp = line_socket::tcp(server->tcp_port());
    auto local = line_socket::unix_socket(socket_path);
    const std::string expected = R"({"jsonrpc":"2.0","id":1,"result":21.5})";
    EXPECT_EQ(tcp.request(get_request("data/temperature")), expected);
    EXPECT_EQ(local.request(get_request("data/temperature")), expected);
    // Pipelined requests are answered in order.
    tcp.send(get_request("alarms/los/severity", 2) + "\n" + get_request("no/such", 3) + "\r\n" +
             get_request("data/temperature", 4) + "\n");
    EXPECT_EQ(tcp.read_line(), R"({"jsonrpc":"2.0","id":2,"result":0})");
    EXPECT_EQ(tcp.read_line(),
              R"({"jsonrpc":"2.0","id":3,"error":{"code":-2,"message":"No such node: no/such"}})");
    EXPECT_EQ(tcp.read_line(), R"({"jsonrpc":"2.0","id":4,"result":21.5})");
}

TEST_F(Server, SubscribersReceiveChangesUntilTheyUnsubscribe) {
    start();
    auto a = line_socket::tcp(server->tcp_port());
    auto b = line_socket::unix_socket(socket_path);
    for (auto* s : {&a, &b})
        EXPECT_EQ(
            s->request(
                R"({"jsonrpc":"2.0","id":1,"method":"subscribe","params":{"path":"alarms/los/severity"}})"),
            R"({"jsonrpc":"2.0","id":1,"result":0})");
    severity->update(1);
    const std::string changed =
        R"({"jsonrpc":"2.0","method":"changed","params":{"path":"alarms/los/severity","value":1}})";
    EXPECT_EQ(a.read_line(), changed);
    EXPECT_EQ(b.read_line(), changed);
    EXPECT_EQ(
        b.request(
            R"({"jsonrpc":"2.0","id":2,"method":"unsubscribe","params":{"path":"alarms/los/severity"}})"),
        R"({"jsonrpc":"2.0","id":2,"result":true})");
    severity->update(0);
    EXPECT_NE(a.read_line()->find(R"("value":0)"), std::string::npos);
    EXPECT_EQ(b.request(get_request("alarms/los/severity", 3)),
              R"({"jsonrpc":"2.0","id":3,"result":0})");
    // A closed client leaves no subscription behind.
    { auto gone = std::move(a); }
    ASSERT_TRUE(connections_become(1));
    EXPECT_EQ(severity->subscriber_count(), 0u);
}

TEST_F(Server, AWaitingCommandHoldsUpOnlyItsOwnConnection) {
    start();
    auto tuner = line_socket::tcp(server->tcp_port());
    auto other = line_socket::tcp(server->tcp_port());
    tuner.send(
        R"({"jsonrpc":"2.0","id":1,"method":"run","params":{"path":"command/tune","argument":193.1}})"
        "\n" +
        get_request("alarms/los/severity", 2) + "\n");
    slow->entered.get_future().wait();
    EXPECT_EQ(other.request(get_request("data/temperature")),
              R"({"jsonrpc":"2.0","id":1,"result":21.5})");
    EXPECT_EQ(
        other.request(
            R"({"jsonrpc":"2.0","id":5,"method":"set","params":{"path":"config/adminStatus","value":"down"}})"),
        R"({"jsonrpc":"2.0","id":5,"result":true})");
    slow->release.set_value();
    EXPECT_EQ(tuner.read_line(), R"({"jsonrpc":"2.0","id":1,"result":"tuned"})");
    EXPECT_EQ(tuner.read_line(), R"({"jsonrpc":"2.0","id":2,"result":0})");
}

TEST_F(Server, OverlongLineGetsAnErrorAndItsConnectionCloses) {
    start();
    auto abuser = line_socket::tcp(server->tcp_port());
    auto bystander = line_socket::tcp(server->tcp_port());
    abuser.send(std::string(1024 * 1024 + 10, 'x'));
    EXPECT_EQ(
        abuser.read_line(),
        R"({"jsonrpc":"2.0","id":null,"error":{"code":-32600,"message":"Request line longer than 1048576 bytes"}})");
    EXPECT_TRUE(abuser.closed_by_peer());
    EXPECT_EQ(bystander.request(get_request("data/temperature")),
              R"({"jsonrpc":"2.0","id":1,"result":21.5})");
}

TEST_F(Server, ACompleteLineOverTheLimitIsRefusedToo) {
    device_handler_api::limits limits;
    limits.max_line_bytes = 1000;
    start(limits);
    auto client = line_socket::tcp(server->tcp_port());
    std::string line = get_request("data/temperature");
    line += std::string(1000, ' ');
    client.send(line + "\n");
    EXPECT_EQ(
        client.read_line(),
        R"({"jsonrpc":"2.0","id":null,"error":{"code":-32600,"message":"Request line longer than 1000 bytes"}})");
    EXPECT_TRUE(client.closed_by_peer());
}

TEST_F(Server, StoppingClosesItsConnections) {
    start();
    auto client = line_socket::tcp(server->tcp_port());
    EXPECT_EQ(client.request(get_request("alarms/los/severity")),
              R"({"jsonrpc":"2.0","id":1,"result":0})");
    server->stop();
    thread.join();
    EXPECT_TRUE(client.closed_by_peer());
    server.reset();
}

TEST_F(Server, HalfALineDoesNotStallOthers) {
    start();
    auto half = line_socket::tcp(server->tcp_port());
    half.send(R"({"jsonrpc":"2.0","id":1,"meth)");
    auto other = line_socket::unix_socket(socket_path);
    EXPECT_EQ(other.request(get_request("data/temperature")),
              R"({"jsonrpc":"2.0","id":1,"result":21.5})");
    half.send(R"(od":"get","params":{"path":"alarms/los/severity"}})"
              "\n");
    EXPECT_EQ(half.read_line(), R"({"jsonrpc":"2.0","id":1,"result":0})");
}

TEST_F(Server, AClientThatNeverReadsIsDisconnected) {
    device_handler_api::limits limits;
    limits.max_output_bytes = 256 * 1024;
    start(limits);
    auto big = status_value<std::string>::create(server->get_db(), "data/big", owner);
    auto sleeper = line_socket::tcp(server->tcp_port());
    EXPECT_EQ(sleeper.request(
                  R"({"jsonrpc":"2.0","id":1,"method":"subscribe","params":{"path":"data/big"}})"),
              R"({"jsonrpc":"2.0","id":1,"result":null})");
    auto reader = line_socket::tcp(server->tcp_port());
    ASSERT_TRUE(connections_become(2));
    // Far more than the socket buffers and the limit together; the sleeper reads none of it.
    for (int i = 0; i < 4000 && server->connection_count() == 2; ++i)
        big->update(std::string(8192, 'a' + i % 26) + std::to_string(i));
    EXPECT_TRUE(connections_become(1));
    EXPECT_EQ(reader.request(get_request("alarms/los/severity")),
              R"({"jsonrpc":"2.0","id":1,"result":0})");
}

TEST_F(Server, AThousandConnectionsAtOnce) {
    start();
    std::vector<line_socket> clients;
    clients.reserve(1000);
    for (int i = 0; i < 1000; ++i)
        clients.push_back(line_socket::tcp(server->tcp_port()));
    for (int i = 0; i < 1000; ++i)
        clients[i].send(get_request("alarms/los/severity", i) + "\n");
    int answered = 0;
    for (int i = 0; i < 1000; ++i)
        if (clients[i].read_line() ==
            R"({"jsonrpc":"2.0","id":)" + std::to_string(i) + R"(,"result":0})")
            ++answered;
    EXPECT_EQ(answered, 1000);
    EXPECT_EQ(server->connection_count(), 1000u);
    auto late = line_socket::unix_socket(socket_path);
    EXPECT_EQ(late.request(get_request("data/temperature")),
              R"({"jsonrpc":"2.0","id":1,"result":21.5})");
    clients.clear();
    EXPECT_TRUE(connections_become(1));
}

TEST_F(Server, ConnectionsBeyondTheLimitAreTurnedAway) {
    device_handler_api::limits limits;
    limits.max_connections = 2;
    start(limits);
    auto a = line_socket::tcp(server->tcp_port());
    auto b = line_socket::tcp(server->tcp_port());
    ASSERT_TRUE(connections_become(2));
    auto c = line_socket::tcp(server->tcp_port());
    EXPECT_EQ(
        c.read_line(),
        R"({"jsonrpc":"2.0","id":null,"error":{"code":-32603,"message":"Too many connections"}})");
    EXPECT_TRUE(c.closed_by_peer());
    EXPECT_EQ(a.request(get_request("alarms/los/severity")),
              R"({"jsonrpc":"2.0","id":1,"result":0})");
}

TEST_F(Server, ClientReadsAnotherHandlersNodes) {
    start();
    auto client = std::make_shared<device_handler_client>(socket_path);
    device_handler_read_object<int> los(client, "alarms/los/severity");
    device_handler_read_object<double> temperature(client, "data/temperature");
    device_handler_read_object<bool> missing(client, "data/operStatus");
    EXPECT_EQ(los.read(), 0);
    EXPECT_DOUBLE_EQ(temperature.read(), 21.5);
    EXPECT_EQ(missing.try_read(), std::nullopt);
    try {
        missing.read();
        FAIL();
    } catch (const dh_error& e) {
        EXPECT_EQ(e.code(), -2);
        EXPECT_EQ(e.text(), "No such node: data/operStatus");
    }
    rapidjson::Document value;
    value.SetString("sideways");
    try {
        client->set("config/adminStatus", value);
        FAIL();
    } catch (const dh_error& e) {
        EXPECT_EQ(e.code(), -22);
    }
    client->subscribe("alarms/los/severity");
    severity->update(1);
    auto n = client->next_notification(std::chrono::seconds(5));
    ASSERT_TRUE(n.has_value());
    EXPECT_EQ(n->path, "alarms/los/severity");
    EXPECT_EQ(n->value, "1");
    EXPECT_EQ(los.read(), 1);
}

TEST(Client, ReachesAServerThatComesUpLate) {
    const auto dir =
        std::filesystem::temp_directory_path() / ("qsfpd-late-" + std::to_string(::getpid()));
    const std::string name = (dir / "bcm_gb").string();
    auto client = std::make_shared<device_handler_client>(name);
    device_handler_read_object<std::string> oper(client, "data/operStatus");
    EXPECT_EQ(oper.try_read(), std::nullopt);
    try {
        oper.read();
        FAIL();
    } catch (const dh_error& e) {
        EXPECT_EQ(e.code(), -111);
    }

    auto owner = std::make_shared<gearbox>();
    auto server =
        std::make_unique<device_handler_api>(name, 0, true, device_handler_api::limits{}, false);
    auto node = volatile_value<&gearbox::get_oper_status>::create(server->get_db(),
                                                                  "data/operStatus", owner);
    std::thread serving([&] { server->start(); });
    EXPECT_EQ(oper.read(), "up");
    // The server goes away and comes back: the client reconnects by itself.
    server->stop();
    serving.join();
    server.reset();
    EXPECT_EQ(oper.try_read(), std::nullopt);
    server =
        std::make_unique<device_handler_api>(name, 0, true, device_handler_api::limits{}, false);
    node = volatile_value<&gearbox::get_oper_status>::create(server->get_db(), "data/operStatus",
                                                             owner);
    serving = std::thread([&] { server->start(); });
    EXPECT_EQ(oper.read(), "up");
    server->stop();
    serving.join();
    std::filesystem::remove_all(dir);
}

// Texts from files and module memory may hold any bytes; clients get valid UTF-8.
TEST_F(Server, EveryTextSentIsValidUtf8) {
    start();
    auto& db = server->get_db();
    const std::shared_ptr<test_owner> none;
    auto description =
        const_value<std::string>::create(db, "inventory/description", none, "100G \xFF\xFE LR4");
    auto vendor = status_value<std::string>::create(db, "inventory/vendor", none, "OK");
    auto client = line_socket::tcp(server->tcp_port());
    EXPECT_EQ(client.request(get_request("inventory/description")),
              "{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":\"100G \xEF\xBF\xBD\xEF\xBF\xBD LR4\"}");
    EXPECT_EQ(
        client.request(
            R"({"jsonrpc":"2.0","id":2,"method":"subscribe","params":{"path":"inventory/vendor"}})"),
        R"({"jsonrpc":"2.0","id":2,"result":"OK"})");
    vendor->update("FINISAR\xC3(\xE2\x82 \xED\xA0\x80\xF4\x90\x80\x80 \xC3\xA9");
    EXPECT_EQ(client.read_line(),
              "{\"jsonrpc\":\"2.0\",\"method\":\"changed\",\"params\":{\"path\":"
              "\"inventory/vendor\",\"value\":\"FINISAR\xEF\xBF\xBD(\xEF\xBF\xBD "
              "\xEF\xBF\xBD\xEF\xBF\xBD \xC3\xA9\"}}");
}

TEST_F(Server, UnfinishedLinesOfAllClientsTogetherAreBounded) {
    device_handler_api::limits limits;
    limits.max_pending_input_bytes = 64 * 1024;
    limits.small_line_bytes = 1024;
    start(limits);
    auto first = line_socket::tcp(server->tcp_port());
    auto second = line_socket::tcp(server->tcp_port());
    auto third = line_socket::tcp(server->tcp_port());
    auto small = line_socket::tcp(server->tcp_port());
    const std::string part(30 * 1024, ' ');
    first.send(part);
    ASSERT_TRUE(pending_input_becomes(part.size(), 2 * part.size() - 1));
    second.send(part);
    ASSERT_TRUE(pending_input_becomes(2 * part.size(), 4 * part.size() - 1));
    third.send(part);  // beyond the total
    EXPECT_EQ(
        third.read_line(),
        R"({"jsonrpc":"2.0","id":null,"error":{"code":-32603,"message":"Server input buffer full"}})");
    EXPECT_TRUE(third.closed_by_peer());
    EXPECT_TRUE(pending_input_becomes(2 * part.size(), 4 * part.size() - 1));
    // A short request still fits, and the first clients keep their connections.
    small.send(R"({"jsonrpc":"2.0","id":7,)");
    small.send(R"("method":"get","params":{"path":"data/temperature"}})"
               "\n");
    EXPECT_EQ(small.read_line(), R"({"jsonrpc":"2.0","id":7,"result":21.5})");
    first.send(get_request("data/temperature") + "\n");
    EXPECT_EQ(first.read_line(), R"({"jsonrpc":"2.0","id":1,"result":21.5})");
    EXPECT_TRUE(pending_input_becomes(part.size(), 2 * part.size() - 1));
}

TEST_F(Server, ALineLeftUnfinishedTooLongClosesItsConnection) {
    auto clock = std::make_shared<qsfpd::virtual_clock>();
    device_handler_api::limits limits;
    limits.clock = clock;
    limits.partial_line_timeout = std::chrono::seconds(30);
    limits.stall_check_period = std::chrono::milliseconds(2);
    start(limits);
    auto slow_client = line_socket::tcp(server->tcp_port());
    slow_client.send(R"({"jsonrpc":"2.0","id":1,)");
    ASSERT_TRUE(pending_input_becomes(24, 4096));
    clock->advance(std::chrono::seconds(29));
    slow_client.send(R"("method":"get","params":{"path":"data/temperature"}})"
                     "\n");
    EXPECT_EQ(slow_client.read_line(), R"({"jsonrpc":"2.0","id":1,"result":21.5})");
    slow_client.send(R"({"jsonrpc")");  // a new line: its own 30 s from now
    ASSERT_TRUE(pending_input_becomes(10, 4096));
    clock->advance(std::chrono::seconds(30));
    EXPECT_EQ(
        slow_client.read_line(),
        R"({"jsonrpc":"2.0","id":null,"error":{"code":-32600,"message":"Request line not finished within 30000 ms"}})");
    EXPECT_TRUE(slow_client.closed_by_peer());
    EXPECT_TRUE(pending_input_becomes(0, 0));
}

}  // namespace
