// The CPU cost of one request on the server's request path, without sockets: the whole line
// (parse + execute + response text) and its parts, over node sets of several sizes, and a few
// ways of parsing the same line with rapidjson to size what a different parse would save.
//
// Each measured operation is one out-of-line call, so that under callgrind its instructions per
// call can be read off exactly (bench/count-instructions), which a shared machine's timing
// cannot give.

#include <benchmark/benchmark.h>

#include <array>

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
    std::array<char, 2048> value_buffer{};
    std::array<char, 1024> stack_buffer{};
    rapidjson::MemoryPoolAllocator<> values(value_buffer.data(), value_buffer.size());
    rapidjson::MemoryPoolAllocator<> stack(stack_buffer.data(), stack_buffer.size());
    std::string buffer;
    for (auto _ : state) {
        // As the connection does: the line in its buffer, parsed in place from reused pools.
        buffer.assign(line);
        buffer.push_back('\n');
        dh::rpc::request_document request(&values, 256, &stack);
        std::string response;
        benchmark::DoNotOptimize(server.processor.parse(buffer.data(), line.size(), request, response));
        benchmark::DoNotOptimize(request);
        values.Clear();
        stack.Clear();
    }
}

void BM_execute_get_stored(benchmark::State& state) {
    server_state server(2000);
    std::string line = get_line(qsfpd::bench::stored_path) + "\n";
    rapidjson::MemoryPoolAllocator<> values, stack;
    dh::rpc::request_document request(&values, 256, &stack);
    std::string response;
    if (!server.processor.parse(line.data(), line.size() - 1, request, response)) {
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

// rapidjson alone on the same line. The server parses into a fresh document with these flags.
constexpr unsigned server_flags = rapidjson::kParseValidateEncodingFlag |
                                  rapidjson::kParseIterativeFlag | rapidjson::kParseNanAndInfFlag;

[[gnu::noinline]] bool parse_fresh_document(const std::string& line) {
    rapidjson::Document request;
    request.Parse<server_flags>(line.c_str(), line.size());
    return request.HasParseError();
}

// Without UTF-8 validation, to size its share (the server must still reject invalid text).
[[gnu::noinline]] bool parse_unvalidated(const std::string& line) {
    rapidjson::Document request;
    request.Parse<rapidjson::kParseIterativeFlag | rapidjson::kParseNanAndInfFlag>(line.c_str(),
                                                                                   line.size());
    return request.HasParseError();
}

// One pool over a buffer that outlives the requests: no allocation per line.
[[gnu::noinline]] bool parse_reused_pool(const std::string& line, char* buffer, std::size_t size) {
    rapidjson::MemoryPoolAllocator<> pool(buffer, size);
    rapidjson::Document request(&pool);
    request.Parse<server_flags>(line.c_str(), line.size());
    return request.HasParseError();
}

// As above, parsed in place in the (writable) line, so strings are not copied again.
[[gnu::noinline]] bool parse_reused_pool_insitu(std::string& line, char* buffer, std::size_t size) {
    rapidjson::MemoryPoolAllocator<> pool(buffer, size);
    rapidjson::Document request(&pool);
    request.ParseInsitu<server_flags>(line.data());
    return request.HasParseError();
}

void BM_rapidjson_parse_fresh_document(benchmark::State& state) {
    const std::string line = get_line(qsfpd::bench::stored_path);
    for (auto _ : state)
        benchmark::DoNotOptimize(parse_fresh_document(line));
}

void BM_rapidjson_parse_unvalidated(benchmark::State& state) {
    const std::string line = get_line(qsfpd::bench::stored_path);
    for (auto _ : state)
        benchmark::DoNotOptimize(parse_unvalidated(line));
}

void BM_rapidjson_parse_reused_pool(benchmark::State& state) {
    const std::string line = get_line(qsfpd::bench::stored_path);
    alignas(8) static char buffer[4096];
    for (auto _ : state)
        benchmark::DoNotOptimize(parse_reused_pool(line, buffer, sizeof buffer));
}

void BM_rapidjson_parse_reused_pool_insitu(benchmark::State& state) {
    const std::string line = get_line(qsfpd::bench::stored_path);
    alignas(8) static char buffer[4096];
    std::string copy;
    for (auto _ : state) {
        copy.assign(line);  // in-situ parsing writes into the text
        benchmark::DoNotOptimize(parse_reused_pool_insitu(copy, buffer, sizeof buffer));
    }
}

}  // namespace

BENCHMARK(BM_handle_line_get_stored)->Arg(23)->Arg(2000)->Arg(20000);
BENCHMARK(BM_handle_line_get_volatile)->Arg(2000);
BENCHMARK(BM_parse_get);
BENCHMARK(BM_execute_get_stored);
BENCHMARK(BM_db_find)->Arg(23)->Arg(2000)->Arg(20000);
BENCHMARK(BM_rapidjson_parse_fresh_document);
BENCHMARK(BM_rapidjson_parse_unvalidated);
BENCHMARK(BM_rapidjson_parse_reused_pool);
BENCHMARK(BM_rapidjson_parse_reused_pool_insitu);

BENCHMARK_MAIN();
