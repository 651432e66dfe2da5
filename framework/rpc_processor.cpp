#include "rpc_processor.hpp"

#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include <charconv>
#include <cstring>
#include <ctime>
#include <optional>

#include "dh_db_event_node.hpp"
#include "dh_error.hpp"
#include "json_parse.hpp"

namespace dh::rpc {
namespace {

constexpr unsigned parse_flags = rapidjson::kParseInsituFlag |
                                 rapidjson::kParseValidateEncodingFlag |
                                 rapidjson::kParseIterativeFlag | rapidjson::kParseNanAndInfFlag;

void append_id(std::string& out, const dh::json_value* id) {
    if (id == nullptr || id->IsNull()) {
        out += "null";
    } else if (id->IsUint64()) {
        char digits[24];
        auto [end, ec] = std::to_chars(digits, digits + sizeof digits, id->GetUint64());
        out.append(digits, end);
    } else if (id->IsString()) {
        dh::append_json_string(out, std::string_view(id->GetString(), id->GetStringLength()));
    } else {
        dh::append_json_text(out, *id);
    }
}

void append_error(std::string& out, const dh::json_value* id, int code, std::string_view message) {
    out += R"({"jsonrpc":"2.0","id":)";
    append_id(out, id);
    out += R"(,"error":{"code":)";
    out += std::to_string(code);
    out += R"(,"message":)";
    dh::append_json_string(out, message);
    out += "}}";
}

void append_result(std::string& out, const dh::json_value* id, std::string_view result_text) {
    out += R"({"jsonrpc":"2.0","id":)";
    append_id(out, id);
    out += R"(,"result":)";
    out += result_text;
    out += "}";
}

struct invalid_params_error {
    std::string message;
};

const dh::json_value* param(const dh::json_value* params, const char* name,
                            rapidjson::SizeType position) {
    if (params == nullptr) return nullptr;
    if (params->IsObject()) {
        auto it = params->FindMember(name);
        return it == params->MemberEnd() ? nullptr : &it->value;
    }
    if (params->IsArray() && position < params->Size()) return &(*params)[position];
    return nullptr;
}

std::string string_param(const dh::json_value* params, const char* name,
                         rapidjson::SizeType position, bool required = true) {
    const auto* value = param(params, name, position);
    if (value == nullptr) {
        if (!required) return {};
        throw invalid_params_error{std::string("Invalid params: '") + name + "' is required"};
    }
    if (!value->IsString())
        throw invalid_params_error{std::string("Invalid params: '") + name + "' must be a string"};
    return std::string(value->GetString(), value->GetStringLength());
}

std::string iso_time(std::chrono::system_clock::time_point t) {
    const auto ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch()).count();
    const std::time_t seconds = static_cast<std::time_t>(ms / 1000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char buffer[96];
    std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900,
                  utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                  static_cast<int>(ms % 1000));
    return buffer;
}

// The parser's encoding check takes the continuation bytes of a multi-byte sequence without
// looking for the end of the text: a sequence started in the last bytes of a line would be read,
// and in place written, past the line's buffer. Such a line is never valid JSON. Returns where
// the cut-off sequence starts.
std::optional<std::size_t> cut_off_utf8_sequence(const char* line, std::size_t length) {
    for (std::size_t i = length > 3 ? length - 3 : 0; i < length; ++i) {
        const auto c = static_cast<unsigned char>(line[i]);
        const std::size_t continuation = c >= 0xF0 ? 3 : c >= 0xE0 ? 2 : c >= 0xC0 ? 1 : 0;
        if (length - i - 1 < continuation) return i;
    }
    return std::nullopt;
}

enum class method_id { get, set, run, info, list, subscribe, unsubscribe, history, unknown };

method_id find_method(std::string_view name) {
    static constexpr std::pair<std::string_view, method_id> methods[] = {
        {"get", method_id::get},
        {"set", method_id::set},
        {"run", method_id::run},
        {"info", method_id::info},
        {"list", method_id::list},
        {"subscribe", method_id::subscribe},
        {"unsubscribe", method_id::unsubscribe},
        {"history", method_id::history},
    };
    for (const auto& [text, id] : methods)
        if (text == name) return id;
    return method_id::unknown;
}

bool valid_id(const dh::json_value& id) {
    return id.IsString() || id.IsNumber() || id.IsNull();
}

}  // namespace

void request_processor::add_method(std::string name, method_handler handler) {
    extra_methods_[std::move(name)] = std::move(handler);
}

std::string request_processor::error_line(const dh::json_value* id, int code,
                                          std::string_view message) {
    std::string out;
    append_error(out, id, code, message);
    out += '\n';
    return out;
}

bool request_processor::parse(char* line, std::size_t length, request_document& request,
                              std::string& response) const {
    if (length > 0 && line[length - 1] == '\r') --length;
    // The parser reads up to a NUL; one inside the line would cut it short unnoticed.
    if (const void* nul = std::memchr(line, '\0', length)) {
        const auto offset = static_cast<const char*>(nul) - line;
        response = error_line(
            nullptr, parse_error,
            "Parse error: NUL character in the request (at byte " + std::to_string(offset) + ")");
        return false;
    }
    if (const auto at = cut_off_utf8_sequence(line, length)) {
        response =
            error_line(nullptr, parse_error,
                       "Parse error: UTF-8 sequence cut off at the end of the line (at byte " +
                           std::to_string(*at) + ")");
        return false;
    }
    line[length] = '\0';  // the line's "\n" (or the spare byte after it) ends the text
    rapidjson::InsituStringStream stream(line);
    const auto parsed = qsfpd::parse_json<parse_flags>(stream, request);
    if (parsed.too_deep) {
        response = error_line(
            nullptr, parse_error,
            "Parse error: nesting deeper than " + std::to_string(max_nesting_depth) + " levels");
        return false;
    }
    if (!parsed) {
        response =
            error_line(nullptr, parse_error,
                       std::string("Parse error: ") + rapidjson::GetParseError_En(parsed.code) +
                           " (at byte " + std::to_string(parsed.offset) + ")");
        return false;
    }
    return true;
}

bool request_processor::request_may_block(const dh::json_value& request) const {
    if (!request.IsObject()) return false;
    auto method = request.FindMember("method");
    if (method == request.MemberEnd() || !method->value.IsString()) return false;
    switch (find_method(method->value.GetString())) {
        case method_id::set:
        case method_id::run:
            return true;
        case method_id::get: {
            auto params = request.FindMember("params");
            if (params == request.MemberEnd()) return false;
            const auto* path = param(&params->value, "path", 0);
            if (path == nullptr || !path->IsString()) return false;
            auto node = db_.find(std::string_view(path->GetString(), path->GetStringLength()));
            return node && node->get_may_block();
        }
        default:
            return false;
    }
}

bool request_processor::may_block(const dh::json_value& request) const {
    if (request.IsArray()) {
        for (const auto& item : request.GetArray())
            if (request_may_block(item)) return true;
        return false;
    }
    return request_may_block(request);
}

void request_processor::execute(const dh::json_value& request,
                                const std::shared_ptr<dh_session>& session,
                                std::string& out) const {
    if (request.IsArray()) {
        if (request.Empty() || request.Size() > max_batch_size) {
            append_error(out, nullptr, invalid_request,
                         request.Empty() ? "Invalid Request: empty batch"
                                         : "Invalid Request: batch larger than " +
                                               std::to_string(max_batch_size));
            out += '\n';
            return;
        }
        std::string batch = "[";
        bool any = false;
        for (const auto& item : request.GetArray()) {
            std::string one;
            if (execute_one(item, session, one)) {
                if (any) batch += ',';
                batch += one;
                any = true;
            }
        }
        if (any) {
            out += batch;
            out += "]\n";
        }
        return;
    }
    if (execute_one(request, session, out)) out += '\n';
}

std::string request_processor::handle_line(std::string_view line,
                                           const std::shared_ptr<dh_session>& session) const {
    std::string buffer(line);
    buffer.push_back('\0');
    rapidjson::MemoryPoolAllocator<> values;
    rapidjson::MemoryPoolAllocator<> stack;
    request_document request(&values, 256, &stack);
    std::string response;
    if (!parse(buffer.data(), line.size(), request, response)) return response;
    execute(request, session, response);
    return response;
}

bool request_processor::execute_one(const dh::json_value& request,
                                    const std::shared_ptr<dh_session>& session,
                                    std::string& out) const {
    if (!request.IsObject()) {
        append_error(out, nullptr, invalid_request, "Invalid Request: not an object");
        return true;
    }
    const dh::json_value* id = nullptr;
    if (auto it = request.FindMember("id"); it != request.MemberEnd()) {
        if (!valid_id(it->value)) {
            append_error(out, nullptr, invalid_request,
                         "Invalid Request: 'id' must be a string, number or null");
            return true;
        }
        id = &it->value;
    }
    auto version = request.FindMember("jsonrpc");
    if (version == request.MemberEnd() || !version->value.IsString() ||
        std::string_view(version->value.GetString()) != "2.0") {
        append_error(out, id, invalid_request, "Invalid Request: 'jsonrpc' must be \"2.0\"");
        return true;
    }
    auto method_member = request.FindMember("method");
    if (method_member == request.MemberEnd() || !method_member->value.IsString()) {
        append_error(out, id, invalid_request, "Invalid Request: 'method' must be a string");
        return true;
    }
    const dh::json_value* params = nullptr;
    if (auto it = request.FindMember("params"); it != request.MemberEnd()) {
        if (!it->value.IsObject() && !it->value.IsArray()) {
            append_error(out, id, invalid_request,
                         "Invalid Request: 'params' must be an object or an array");
            return true;
        }
        params = &it->value;
    }
    const bool notification = id == nullptr;
    const std::string_view method_name(method_member->value.GetString(),
                                       method_member->value.GetStringLength());

    std::string result;
    try {
        // Only some methods build JSON values; a get of a stored value needs no allocator.
        std::optional<rapidjson::Document> scratch;
        auto allocator_for = [&scratch]() -> dh::json_allocator& {
            if (!scratch) scratch.emplace();
            return scratch->GetAllocator();
        };
        switch (find_method(method_name)) {
            case method_id::get: {
                const auto path = string_param(params, "path", 0);
                auto node = db_.lookup(path);
                if (!node->readable())
                    throw dh_error(dh::errc::not_supported,
                                   "Operation 'get' is not supported by " + node->kind());
                result = node->get_text(path);
                break;
            }
            case method_id::set: {
                const auto path = string_param(params, "path", 0);
                const auto* value = param(params, "value", 1);
                if (value == nullptr)
                    throw invalid_params_error{"Invalid params: 'value' is required"};
                db_.lookup(path)->set(path, *value);
                result = "true";
                break;
            }
            case method_id::run: {
                const auto path = string_param(params, "path", 0);
                const auto* argument = param(params, "argument", 1);
                const dh::json_value null_argument;
                dh::json_value response;
                db_.lookup(path)->run(path, argument ? *argument : null_argument, allocator_for(),
                                      response);
                result = dh::to_json_text(response);
                break;
            }
            case method_id::info: {
                const auto path = string_param(params, "path", 0);
                result = dh::to_json_text(db_.lookup(path)->get_info(allocator_for()));
                break;
            }
            case method_id::list: {
                const auto prefix = string_param(params, "prefix", 0, false);
                // Not `result = "["`: GCC 12 at -O2 sees a false overlap in it (-Wrestrict), as
                // in the history below.
                result.assign(1, '[');
                bool first = true;
                for (const auto& entry : db_.list(prefix)) {
                    if (!first) result += ',';
                    first = false;
                    result += R"({"path":)";
                    dh::append_json_string(result, entry.path);
                    result += R"(,"type":)";
                    dh::append_json_string(result, entry.node->kind());
                    result += '}';
                }
                result += ']';
                break;
            }
            case method_id::subscribe: {
                const auto path = string_param(params, "path", 0);
                auto node = db_.lookup(path);
                if (!node->subscription_supported())
                    throw dh_error(dh::errc::not_supported,
                                   "Operation 'subscribe' is not supported by " + node->kind());
                dh::json_value current;
                node->subscribe(session, path, allocator_for(), current);
                session->remember_subscription(node);
                result = dh::to_json_text(current);
                break;
            }
            case method_id::unsubscribe: {
                const auto path = string_param(params, "path", 0);
                auto node = db_.lookup(path);
                if (!node->subscription_supported())
                    throw dh_error(dh::errc::not_supported,
                                   "Operation 'unsubscribe' is not supported by " + node->kind());
                node->unsubscribe(session);
                session->forget_subscription(node);
                result = "true";
                break;
            }
            case method_id::history: {
                const auto path = string_param(params, "path", 0);
                auto node = db_.lookup(path);
                auto* events = dynamic_cast<dh_db_event_node*>(node.get());
                if (events == nullptr)
                    throw dh_error(dh::errc::not_supported,
                                   "Operation 'history' is not supported by " + node->kind());
                result.assign(1, '[');
                bool first = true;
                for (const auto& entry : events->history()) {
                    if (!first) result += ',';
                    first = false;
                    result +=
                        R"({"time":")" + iso_time(entry.time) + R"(","value":)" + entry.value + "}";
                }
                result += ']';
                break;
            }
            case method_id::unknown:
                if (auto extra = extra_methods_.find(method_name); extra != extra_methods_.end()) {
                    result = extra->second(params);
                    break;
                }
                if (!notification)
                    append_error(out, id, method_not_found,
                                 "Method not found: " + std::string(method_name));
                return !notification;
        }
    } catch (const invalid_params_error& e) {
        if (notification) return false;
        append_error(out, id, invalid_params, e.message);
        return true;
    } catch (const dh_error& e) {
        if (notification) return false;
        append_error(out, id, e.code(), e.text());
        return true;
    } catch (const std::exception& e) {
        if (notification) return false;
        append_error(out, id, internal_error, std::string("Internal error: ") + e.what());
        return true;
    }
    if (notification) return false;
    append_result(out, id, result);
    return true;
}

}  // namespace dh::rpc
