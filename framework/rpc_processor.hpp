#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "dh_db.hpp"
#include "dh_json.hpp"
#include "dh_session.hpp"
#include "json_parse.hpp"

namespace dh::rpc {

// A request as parsed: values and the parser's stack both come from pools the caller owns, so a
// connection parses line after line without touching the heap.
using request_document =
    rapidjson::GenericDocument<rapidjson::UTF8<>, rapidjson::MemoryPoolAllocator<>,
                               rapidjson::MemoryPoolAllocator<>>;

// JSON-RPC 2.0's own error codes.
inline constexpr int parse_error = -32700;
inline constexpr int invalid_request = -32600;
inline constexpr int method_not_found = -32601;
inline constexpr int invalid_params = -32602;
inline constexpr int internal_error = -32603;

inline constexpr std::size_t max_nesting_depth = qsfpd::max_json_depth;
inline constexpr std::size_t max_batch_size = 1000;

// Turns request lines into response lines against one database. Transport-free, so the
// protocol is tested without sockets; the server decides on which thread `execute` runs.
class request_processor {
  public:
    explicit request_processor(dh_db& db) : db_(db) {}

    // Parses one line in place (the line's bytes are reused for its strings; UTF-8 checked,
    // nesting limited). On failure `response` gets the error line.
    bool parse(char* line, std::size_t length, request_document& request,
               std::string& response) const;
    // Whether executing the request may wait on a handler (setters, commands, register reads).
    bool may_block(const dh::json_value& request) const;
    // Executes a parsed request (or batch) and appends the response line, if any, to `out`.
    void execute(const dh::json_value& request, const std::shared_ptr<dh_session>& session,
                 std::string& out) const;

    // Convenience for tests and in-process callers: parse, execute, return the response line.
    std::string handle_line(std::string_view line,
                            const std::shared_ptr<dh_session>& session) const;

    static std::string error_line(const dh::json_value* id, int code, std::string_view message);

    // A method of its own for a server that speaks this protocol about something other than
    // nodes (the module emulator's cages and control). It gets the params (or null) and returns
    // the result as JSON text, refusing with a dh_error. Added before serving starts.
    using method_handler = std::function<std::string(const dh::json_value* params)>;
    void add_method(std::string name, method_handler handler);

  private:
    // Appends one response object (no newline); returns false for a notification (no response).
    bool execute_one(const dh::json_value& request, const std::shared_ptr<dh_session>& session,
                     std::string& out) const;
    bool request_may_block(const dh::json_value& request) const;

    dh_db& db_;
    std::map<std::string, method_handler, std::less<>> extra_methods_;
};

}  // namespace dh::rpc
