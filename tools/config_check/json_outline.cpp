#include "json_outline.hpp"

#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <utility>

#include "json_parse.hpp"

namespace config_check {
namespace {

// Collects the reader's events into nodes. The reader reports a scalar or a member name once it
// has read it, so the stream's position then is its end. A value starts at the first byte after
// the previous event's end that is not blank, ',' or ':', the only bytes skipped between tokens.
class outline_builder {
  public:
    outline_builder(std::vector<json_node>& nodes, std::string_view text,
                    const rapidjson::MemoryStream& stream)
        : nodes_(nodes), text_(text), stream_(stream) {}

    bool Null() { return scalar(json_type::null); }
    bool Bool(bool value) {
        scalar(json_type::boolean);
        nodes_.back().boolean = value;
        return true;
    }
    bool Int(int value) { return number(static_cast<double>(value)); }
    bool Uint(unsigned value) { return number(static_cast<double>(value)); }
    bool Int64(std::int64_t value) { return number(static_cast<double>(value)); }
    bool Uint64(std::uint64_t value) { return number(static_cast<double>(value)); }
    bool Double(double value) { return number(value); }
    bool RawNumber(const char*, rapidjson::SizeType, bool) { return scalar(json_type::number); }
    bool String(const char* text, rapidjson::SizeType length, bool) {
        scalar(json_type::string);
        nodes_.back().text.assign(text, length);
        return true;
    }
    bool Key(const char* text, rapidjson::SizeType length, bool) {
        key_.assign(text, length);
        key_begin_ = token_begin();
        previous_end_ = stream_.Tell();
        return true;
    }
    bool StartObject() { return open(json_type::object); }
    bool EndObject(rapidjson::SizeType) { return close(); }
    bool StartArray() { return open(json_type::array); }
    bool EndArray(rapidjson::SizeType) { return close(); }

    // Where the container that went one level too deep starts, if one did.
    std::optional<std::size_t> too_deep_at() const { return too_deep_at_; }

  private:
    struct open_container {
        std::size_t node;
        std::size_t last_child = no_node;
    };

    std::size_t token_begin() const {
        std::size_t offset = previous_end_;
        while (offset < text_.size() &&
               std::string_view(" \t\n\r,:").find(text_[offset]) != std::string_view::npos)
            ++offset;
        return offset;
    }

    void add(json_type type) {
        json_node node;
        node.type = type;
        node.begin = token_begin();
        const std::size_t index = nodes_.size();
        if (!open_.empty()) {
            auto& parent = open_.back();
            if (nodes_[parent.node].type == json_type::object) {
                node.key = std::move(key_);
                node.key_begin = key_begin_;
            }
            if (parent.last_child == no_node)
                nodes_[parent.node].first_child = index;
            else
                nodes_[parent.last_child].next_sibling = index;
            parent.last_child = index;
        }
        nodes_.push_back(std::move(node));
    }

    // As rapidjson::Value::GetDouble gives it.
    bool number(double value) {
        scalar(json_type::number);
        nodes_.back().number = value;
        return true;
    }

    bool scalar(json_type type) {
        add(type);
        nodes_.back().end = previous_end_ = stream_.Tell();
        return true;
    }

    // The reader reports a bracket before it takes it: the stream stands on it.
    bool open(json_type type) {
        // The daemon's parse stops at the same depth: this text must fail here too.
        if (open_.size() + 1 > qsfpd::max_json_depth) {
            too_deep_at_ = stream_.Tell();
            return false;
        }
        add(type);
        open_.push_back({nodes_.size() - 1});
        previous_end_ = stream_.Tell() + 1;
        return true;
    }

    bool close() {
        nodes_[open_.back().node].end = previous_end_ = stream_.Tell() + 1;
        open_.pop_back();
        return true;
    }

    std::vector<json_node>& nodes_;
    std::string_view text_;
    const rapidjson::MemoryStream& stream_;
    std::vector<open_container> open_;
    std::size_t previous_end_ = 0;
    std::string key_;
    std::size_t key_begin_ = 0;
    std::optional<std::size_t> too_deep_at_;
};

std::string byte_text(std::string_view text, std::size_t offset) {
    if (offset >= text.size()) return "the end of the file";
    const auto byte = static_cast<unsigned char>(text[offset]);
    if (byte == '\n') return "a line break";
    if (byte == '\t') return "a tab";
    if (byte == 0) return "a NUL byte";
    if (offset == 0 && text.starts_with("\xEF\xBB\xBF")) return "a byte-order mark";
    if (byte == '\'') return "a single quote";
    if (byte >= 0x20 && byte < 0x7F) return std::string("'") + static_cast<char>(byte) + "'";
    char hex[16];
    std::snprintf(hex, sizeof hex, "byte 0x%02X", byte);
    return hex;
}

// An escape sequence as written, up to `length` bytes.
std::string escape_text(std::string_view text, std::size_t offset, std::size_t length) {
    std::string result;
    for (std::size_t i = offset; i < text.size() && i < offset + length; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte < 0x20 || byte >= 0x7F || (byte == '"' && i > offset)) break;
        result += static_cast<char>(byte);
    }
    return result;
}

// A misspelt literal (tru, True, nul) is reported at its start, as the whole word: the reader
// gives up somewhere inside it.
std::optional<std::pair<std::size_t, std::string>> word_around(std::string_view text,
                                                               std::size_t offset) {
    const auto letter = [&](std::size_t i) {
        return std::isalpha(static_cast<unsigned char>(text[i])) != 0;
    };
    std::size_t begin = std::min(offset, text.size());
    while (begin > 0 && letter(begin - 1))
        --begin;
    std::size_t end = begin;
    while (end < text.size() && end < begin + 40 && letter(end))
        ++end;
    if (end == begin) return std::nullopt;
    return std::pair(begin, "the word " + std::string(text.substr(begin, end - begin)));
}

json_syntax_error describe_syntax_error(std::string_view text, rapidjson::ParseErrorCode code,
                                        std::size_t offset) {
    const auto at = [&](std::string expected) {
        return json_syntax_error{offset, std::move(expected), byte_text(text, offset), code};
    };
    const auto escape = [&](std::string expected, std::size_t length) {
        return json_syntax_error{offset, std::move(expected), escape_text(text, offset, length),
                                 code};
    };
    switch (code) {
        case rapidjson::kParseErrorDocumentEmpty:
            return at("a JSON value");
        case rapidjson::kParseErrorValueInvalid:
            if (auto word = word_around(text, offset))
                return {word->first, "a JSON value", std::move(word->second), code};
            return at("a JSON value");
        case rapidjson::kParseErrorDocumentRootNotSingular:
            return at("the end of the file after the top-level value");
        case rapidjson::kParseErrorObjectMissName:
            return at("a member name in double quotes");
        case rapidjson::kParseErrorObjectMissColon:
            return at("':' after the member name");
        case rapidjson::kParseErrorObjectMissCommaOrCurlyBracket:
            return at("',' or '}'");
        case rapidjson::kParseErrorArrayMissCommaOrSquareBracket:
            return at("',' or ']'");
        case rapidjson::kParseErrorStringUnicodeEscapeInvalidHex:
            return escape("four hex digits after \\u", 6);
        case rapidjson::kParseErrorStringUnicodeSurrogateInvalid:
            return escape("a \\uDC00 to \\uDFFF escape after a high surrogate", 12);
        case rapidjson::kParseErrorStringEscapeInvalid:
            if (offset < text.size() && text[offset] == '\\')
                return escape("one of \\\" \\\\ \\/ \\b \\f \\n \\r \\t \\u", 2);
            return at("control characters in a string written as escapes");
        case rapidjson::kParseErrorStringMissQuotationMark:
            return at("a closing '\"'");
        case rapidjson::kParseErrorStringInvalidEncoding:
            return at("UTF-8 text");
        case rapidjson::kParseErrorNumberTooBig: {
            std::size_t end = offset;
            while (end < text.size() &&
                   std::string_view("0123456789+-.eE").find(text[end]) != std::string_view::npos)
                ++end;
            std::string number(text.substr(offset, std::min<std::size_t>(end - offset, 40)));
            if (end - offset > 40) number += "...";
            return json_syntax_error{offset, "a number a double can hold", number, code};
        }
        case rapidjson::kParseErrorNumberMissFraction:
            return at("a digit after the decimal point");
        case rapidjson::kParseErrorNumberMissExponent:
            return at("a digit in the exponent");
        default:
            return at("JSON");
    }
}

}  // namespace

json_outline::json_outline(std::string text) : text_(std::move(text)), lines_(text_) {
    rapidjson::MemoryStream stream(text_.data(), text_.size());
    outline_builder builder(nodes_, text_, stream);
    rapidjson::Reader reader;
    reader.Parse<rapidjson::kParseDefaultFlags | rapidjson::kParseIterativeFlag>(stream, builder);
    if (const auto deep = builder.too_deep_at()) {
        const bool array = text_[*deep] == '[';
        syntax_error_ = json_syntax_error{
            *deep, "at most " + std::to_string(qsfpd::max_json_depth) + " levels of nesting",
            std::string(array ? "an array" : "an object") + " at level " +
                std::to_string(qsfpd::max_json_depth + 1),
            reader.GetParseErrorCode()};
    } else if (reader.HasParseError()) {
        syntax_error_ =
            describe_syntax_error(text_, reader.GetParseErrorCode(), reader.GetErrorOffset());
    }
}

std::vector<const json_node*> json_outline::children(const json_node& node) const {
    std::vector<const json_node*> result;
    for (std::size_t i = node.first_child; i != no_node; i = nodes_[i].next_sibling)
        result.push_back(&nodes_[i]);
    return result;
}

std::string json_outline::describe(const json_node& node) const {
    switch (node.type) {
        case json_type::null:
            return "null";
        case json_type::boolean:
            return node.boolean ? "true" : "false";
        case json_type::number:
            return "a number (" + std::string(text_.substr(node.begin, node.end - node.begin)) +
                   ")";
        case json_type::string:
            return "a string (" + quote(node.text) + ")";
        case json_type::array:
            return "an array";
        case json_type::object:
            return "an object";
    }
    return "a value";
}

std::string quote(std::string_view text) {
    constexpr std::size_t shown = 40;
    std::string result = "\"";
    for (std::size_t i = 0; i < text.size() && i < shown; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte == '"' || byte == '\\') {
            result += '\\';
            result += static_cast<char>(byte);
        } else if (byte < 0x20 || byte == 0x7F) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\u%04X", byte);
            result += hex;
        } else {
            result += static_cast<char>(byte);
        }
    }
    if (text.size() > shown) result += "...";
    return result + "\"";
}

}  // namespace config_check
