// The server's handling of received lines: each input is a client's byte stream, cut into lines
// as a connection cuts it, every line parsed in place and executed against a small database that
// holds one node of every kind a handler publishes. Responses and notifications must be single
// JSON lines, whatever came in.
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "dh/api/value_nodes.hpp"
#include "dh_db.hpp"
#include "dh_error.hpp"
#include "dh_session.hpp"
#include "fuzz_support.hpp"
#include "rpc_processor.hpp"

namespace {

using namespace dh::api;

struct fuzz_owner : std::enable_shared_from_this<fuzz_owner> {
    double temperature = 38.25;
    std::string admin;
    std::int32_t level = 0;
    double frequency = 193.1;
    std::map<unsigned, bool> lane_enabled;
    std::shared_ptr<status_value<int>> alarm;

    double get_temperature() { return temperature; }
    double get_lane_rx_power(unsigned lane) { return -2.5 + lane; }
    std::string get_wavelength() { return "1310.00"; }
    unsigned get_broken() { throw std::runtime_error("bus gone"); }
    int get_unplugged() { throw dh_error(-5, "Module unplugged "); }
    bool get_lane_enable(unsigned lane) { return lane_enabled[lane]; }

    bool set_admin(const std::string& value) {
        admin = value;
        return value != "refuse";
    }
    void set_level(const std::int32_t& value) { level = value; }
    void set_frequency(const double& value) { frequency = value; }
    bool set_lane_enable(unsigned lane, bool value) {
        lane_enabled[lane] = value;
        return true;
    }
    std::string restart(const bool& hard) { return hard ? "hard" : "soft"; }
    void clear_counters() { temperature = 38.25; }
    // Moves the alarm, so that subscribers get notifications while the input runs.
    bool raise_alarm(const std::int32_t& severity) {
        alarm->update(severity);
        return true;
    }
};

// A connection's session without the network: checks and counts what is delivered.
class checking_session : public dh_session {
  public:
    void deliver(std::shared_ptr<const std::string> line) override;
    std::size_t delivered = 0;
};

void check_line(std::string_view line) {
    if (line.empty() || line.back() != '\n') qsfpd::fuzz::fail("a line that does not end in \\n");
    if (line.find('\n') != line.size() - 1) qsfpd::fuzz::fail("a newline inside a line");
    rapidjson::Document doc;
    // The protocol reads and writes NaN and Infinity (a request may carry them, an id too).
    doc.Parse<rapidjson::kParseNanAndInfFlag>(line.data(), line.size() - 1);
    if (doc.HasParseError()) qsfpd::fuzz::fail("a line that is not JSON");
    if (!doc.IsObject() && !doc.IsArray()) qsfpd::fuzz::fail("a line that is no object or batch");
}

void checking_session::deliver(std::shared_ptr<const std::string> line) {
    check_line(*line);
    ++delivered;
}

struct database {
    dh_db db;
    std::shared_ptr<fuzz_owner> owner = std::make_shared<fuzz_owner>();
    std::vector<std::shared_ptr<dh_db_leaf_node>> nodes;

    database() {
        owner->alarm = status_value<int>::create(db, "alarms/lossOfSignal/severity", owner, 0);
        nodes.push_back(owner->alarm);
        nodes.push_back(
            status_value<std::string>::create(db, "data/operStatus", owner, std::string("down")));
        nodes.push_back(const_value<std::string>::create(db, "inventory/vendor", owner,
                                                         std::string("FINISAR CORP.")));
        nodes.push_back(
            volatile_value<&fuzz_owner::get_temperature>::create(db, "data/temperature", owner));
        nodes.push_back(
            volatile_value<&fuzz_owner::get_wavelength>::create(db, "data/wavelength", owner));
        nodes.push_back(volatile_value<&fuzz_owner::get_broken>::create(db, "data/broken", owner));
        nodes.push_back(
            volatile_value<&fuzz_owner::get_unplugged>::create(db, "data/unplugged", owner));
        auto filtered =
            hysteresis_filtered_value<polled_volatile_value_impl<&fuzz_owner::get_temperature>>::
                create(db, "data/filteredTemperature", owner, 0.5, 1);
        filtered->periodic_task(true);
        nodes.push_back(filtered);
        auto pushed = pushed_volatile_value_impl<double>::create(db, "data/totalRxPower", owner);
        pushed->update(-1.25);
        nodes.push_back(pushed);
        nodes.push_back(async_volatile_value<dh_db_leaf_node, &fuzz_owner::get_temperature>::create(
            db, "data/asyncTemperature", owner));
        nodes.push_back(config_param<&fuzz_owner::set_admin>::create(
            db, "config/adminStatus", owner, std::vector<std::string>{"up", "down", "refuse"},
            std::string("down")));
        nodes.push_back(config_param<&fuzz_owner::set_level>::create(
            db, "config/level", owner, min_max_range_t<std::int32_t>{-10, 10}));
        nodes.push_back(config_param<&fuzz_owner::set_frequency>::create(
            db, "config/frequency", owner, min_max_grid_range_t<double>{191.3, 196.1, "6.25 GHz"}));
        nodes.push_back(command<&fuzz_owner::restart>::create(db, "command/restart", owner));
        nodes.push_back(
            command<&fuzz_owner::clear_counters>::create(db, "command/clearCounters", owner));
        nodes.push_back(command<&fuzz_owner::raise_alarm>::create(db, "command/raiseAlarm", owner));
        for (unsigned lane = 0; lane < 2; ++lane) {
            const std::string prefix = "lane/" + std::to_string(lane) + "/";
            nodes.push_back(volatile_value<&fuzz_owner::get_lane_rx_power>::create(
                db, "data/" + prefix + "rxPower", owner, lane));
            nodes.push_back(volatile_value<&fuzz_owner::get_lane_enable>::create(
                db, "data/" + prefix + "txEnable", owner, lane));
            nodes.push_back(command<&fuzz_owner::set_lane_enable>::create(
                db, "command/" + prefix + "txEnable", owner, bind_args(lane)));
        }
    }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    qsfpd::fuzz::discard_logs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    database base;
    dh::rpc::request_processor processor(base.db);
    processor.add_method("echo", [](const dh::json_value* params) -> std::string {
        if (params == nullptr) throw dh_error(dh::rpc::invalid_params, "Invalid params: none");
        return params->IsArray() ? "[]" : "{}";
    });
    auto session = std::make_shared<checking_session>();

    // The connection's buffer: lines are parsed in place, the "\n" after each becomes its end.
    std::string input(reinterpret_cast<const char*>(data), size);
    if (input.empty() || input.back() != '\n') input.push_back('\n');
    std::array<char, 2048> value_buffer{};
    std::array<char, 1024> stack_buffer{};
    rapidjson::MemoryPoolAllocator<> value_pool(value_buffer.data(), value_buffer.size(), 4096);
    rapidjson::MemoryPoolAllocator<> stack_pool(stack_buffer.data(), stack_buffer.size(), 4096);

    std::size_t consumed = 0;
    for (std::size_t newline; (newline = input.find('\n', consumed)) != std::string::npos;) {
        char* line = input.data() + consumed;
        const std::size_t length = newline - consumed;
        consumed = newline + 1;
        if (length == 0 || (length == 1 && line[0] == '\r')) continue;
        std::string out;
        {
            dh::rpc::request_document request(&value_pool, 256, &stack_pool);
            if (processor.parse(line, length, request, out)) {
                if (processor.may_block(request)) {
                    // What the connection hands a worker: a copy that owns its strings.
                    rapidjson::StringBuffer text;
                    dh::json_writer writer(text);
                    request.Accept(writer);
                    rapidjson::Document copy;
                    copy.Parse<rapidjson::kParseNanAndInfFlag>(text.GetString(), text.GetSize());
                    if (copy.HasParseError()) qsfpd::fuzz::fail("a request that does not copy");
                    processor.execute(copy, session, out);
                } else {
                    processor.execute(request, session, out);
                }
            }
        }
        value_pool.Clear();
        stack_pool.Clear();
        if (!out.empty()) check_line(out);
    }
    session->close();
    return 0;
}
