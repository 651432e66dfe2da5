#pragma once

#include <rapidjson/encodedstream.h>
#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include <cstddef>
#include <string>

namespace qsfpd {

// No file or message this system reads nests anywhere near this deep; anything deeper is refused
// before it can exhaust a stack in a recursive consumer.
constexpr std::size_t max_json_depth = 64;

struct json_parse_result {
    rapidjson::ParseErrorCode code = rapidjson::kParseErrorNone;
    std::size_t offset = 0;
    bool too_deep = false;

    explicit operator bool() const { return code == rapidjson::kParseErrorNone; }
    std::string message() const {
        if (too_deep)
            return "nesting deeper than " + std::to_string(max_json_depth) + " levels at offset " +
                   std::to_string(offset);
        return std::string(rapidjson::GetParseError_En(code)) + " at offset " +
               std::to_string(offset);
    }
};

namespace detail {

// Forwards SAX events to the document and stops the parse when nesting exceeds the limit.
template <typename Document>
class depth_limited_handler {
  public:
    using Ch = typename Document::Ch;
    explicit depth_limited_handler(Document& doc) : doc_(doc) {}
    bool exceeded() const { return exceeded_; }

    bool Null() { return doc_.Null(); }
    bool Bool(bool b) { return doc_.Bool(b); }
    bool Int(int i) { return doc_.Int(i); }
    bool Uint(unsigned u) { return doc_.Uint(u); }
    bool Int64(int64_t i) { return doc_.Int64(i); }
    bool Uint64(uint64_t u) { return doc_.Uint64(u); }
    bool Double(double d) { return doc_.Double(d); }
    bool RawNumber(const Ch* s, rapidjson::SizeType n, bool copy) {
        return doc_.RawNumber(s, n, copy);
    }
    bool String(const Ch* s, rapidjson::SizeType n, bool copy) { return doc_.String(s, n, copy); }
    bool Key(const Ch* s, rapidjson::SizeType n, bool copy) { return doc_.Key(s, n, copy); }
    bool StartObject() { return enter() && doc_.StartObject(); }
    bool EndObject(rapidjson::SizeType n) {
        --depth_;
        return doc_.EndObject(n);
    }
    bool StartArray() { return enter() && doc_.StartArray(); }
    bool EndArray(rapidjson::SizeType n) {
        --depth_;
        return doc_.EndArray(n);
    }

  private:
    bool enter() {
        if (++depth_ > max_json_depth) exceeded_ = true;
        return !exceeded_;
    }
    Document& doc_;
    std::size_t depth_ = 0;
    bool exceeded_ = false;
};

}  // namespace detail

// Parses `stream` into `doc` without recursion and with bounded nesting: a too-deep text is a
// parse error like any other (code kParseErrorTermination, too_deep set). On failure `doc` is
// left as it was.
template <unsigned Flags = rapidjson::kParseDefaultFlags, typename Stream, typename Document>
json_parse_result parse_json(Stream& stream, Document& doc) {
    rapidjson::Reader reader;
    bool too_deep = false;
    auto generator = [&](Document& target) {
        detail::depth_limited_handler<Document> limited(target);
        const bool ok = static_cast<bool>(
            reader.Parse<Flags | rapidjson::kParseIterativeFlag>(stream, limited));
        too_deep = limited.exceeded();
        return ok;
    };
    doc.Populate(generator);
    json_parse_result result;
    if (reader.HasParseError()) {
        result.code = reader.GetParseErrorCode();
        result.offset = reader.GetErrorOffset();
        result.too_deep = too_deep;
    }
    return result;
}

template <unsigned Flags = rapidjson::kParseDefaultFlags, typename Document>
json_parse_result parse_json(const char* text, std::size_t length, Document& doc) {
    rapidjson::MemoryStream memory(text, length);
    rapidjson::EncodedInputStream<rapidjson::UTF8<>, rapidjson::MemoryStream> stream(memory);
    return parse_json<Flags>(stream, doc);
}

}  // namespace qsfpd
