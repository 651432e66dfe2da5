// The CPU cost of one request on the server's request path, without sockets: the whole line
// (parse + execute + response text) and its parts, over node sets of several sizes.

#include <benchmark/benchmark.h>

#include <string>

#include "bench_nodes.hpp"
#include "dh_session.hpp"
#include "rpc_processor.hpp"

namespace {

class null_session final : public dh_session {
  public:
    void deliver(std::shared_ptr<const std::string>) override {}
};

std::string get_line(const char* path) {
    return std::string(R"({"jsonrpc":"2.0","id":12345,"method":"get","params":{"path":")") + path +
           "\"}}";
}

struct server_state {
    explicit server_state(std::size_t nodes)
        : set(qsfpd::bench::populate(db, nodes)), processor(db) {}
    dh_db db;
    qsfpd::bench::node_set set;
    dh::rpc::request_processor processor;
    std::shared_ptr<dh_session> session = std::make_shared<null_session>();
};

// A response that is not a result means the benchmark measures an error path: refuse to report it.
bool answers(benchmark::State& state, const std::string& response) {
    if (response.find("\"result\":") != std::string::npos) return true;
    state.SkipWithError(("unexpected response: " + response).c_str());
    return false;
}

void handle_line(benchmark::State& state, const char* path) {
    server_state server(static_cast<std::size_t>(state.range(0)));
    const std::string line = get_line(path);
    if (!answers(state, server.processor.handle_line(line, server.session))) return;
    for (auto _ : state) {
        auto response = server.processor.handle_line(line, server.session);
        benchmark::DoNotOptimize(response);
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_handle_line_get_stored(benchmark::State& state) {
    handle_line(state, qsfpd::bench::stored_path);
}
void BM_handle_line_get_volatile(benchmark::State& state) {
    handle_line(state, qsfpd::bench::volatile_path);
}

// The server's own split of the same work: parse on the network thread, then execute.
void BM_parse_get(benchmark::State& state) {
    server_state server(2000);
    const std::string line = get_line(qsfpd::bench::stored_path);
    for (auto _ : state) {
        rapidjson::Document request;
        std::string response;
        benchmark::DoNotOptimize(server.processor.parse(line, request, response));
        benchmark::DoNotOptimize(request);
    }
}

void BM_execute_get_stored(benchmark::State& state) {
    server_state server(2000);
    const std::string line = get_line(qsfpd::bench::stored_path);
    rapidjson::Document request;
    std::string response;
    if (!server.processor.parse(line, request, response)) {
        state.SkipWithError(response.c_str());
        return;
    }
    std::string out;
    for (auto _ : state) {
        out.clear();
        server.processor.execute(request, server.session, out);
        benchmark::DoNotOptimize(out);
    }
}

void BM_db_find(benchmark::State& state) {
    server_state server(static_cast<std::size_t>(state.range(0)));
    const std::string path = qsfpd::bench::stored_path;
    for (auto _ : state)
        benchmark::DoNotOptimize(server.db.find(path));
}

// Construction and parse of an empty-ish document alone: the fixed cost rapidjson adds per line.
void BM_rapidjson_document_parse(benchmark::State& state) {
    const std::string line = get_line(qsfpd::bench::stored_path);
    for (auto _ : state) {
        rapidjson::Document request;
        request.Parse(line.c_str(), line.size());
        benchmark::DoNotOptimize(request);
    }
}

}  // namespace

BENCHMARK(BM_handle_line_get_stored)->Arg(23)->Arg(2000)->Arg(20000);
BENCHMARK(BM_handle_line_get_volatile)->Arg(2000);
BENCHMARK(BM_parse_get);
BENCHMARK(BM_execute_get_stored);
BENCHMARK(BM_db_find)->Arg(23)->Arg(2000)->Arg(20000);
BENCHMARK(BM_rapidjson_document_parse);

BENCHMARK_MAIN();
