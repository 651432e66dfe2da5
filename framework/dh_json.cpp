#include "dh_json.hpp"

#include <cmath>

namespace dh {
namespace {

// Writes like rapidjson's writer but turns NaN and infinities into null, so every line the
// server sends is plain JSON.
class finite_writer : public json_writer {
  public:
    using json_writer::json_writer;
    bool Double(double d) {
        if (!std::isfinite(d)) return json_writer::Null();
        return json_writer::Double(d);
    }
};

// Length of the well-formed UTF-8 sequence at the start of `s`, or 0 if it is ill-formed
// (overlong forms, surrogates and values beyond U+10FFFF included).
std::size_t utf8_sequence_length(std::string_view s) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(s[i]); };
    const auto continuation = [&](std::size_t i) {
        return i < s.size() && (byte(i) & 0xC0) == 0x80;
    };
    const unsigned char lead = byte(0);
    if (lead < 0x80) return 1;
    if (lead >= 0xC2 && lead <= 0xDF) return continuation(1) ? 2 : 0;
    if (lead >= 0xE0 && lead <= 0xEF) {
        if (s.size() < 2) return 0;
        const unsigned char second = byte(1);
        if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F)) return 0;
        return continuation(1) && continuation(2) ? 3 : 0;
    }
    if (lead >= 0xF0 && lead <= 0xF4) {
        if (s.size() < 2) return 0;
        const unsigned char second = byte(1);
        if ((lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second > 0x8F)) return 0;
        return continuation(1) && continuation(2) && continuation(3) ? 4 : 0;
    }
    return 0;
}

}  // namespace

void repair_utf8(std::string& text, std::size_t from) {
    std::size_t i = from;
    while (i < text.size()) {
        if (static_cast<unsigned char>(text[i]) < 0x80) {
            ++i;
            continue;
        }
        const std::size_t n = utf8_sequence_length(std::string_view(text).substr(i));
        if (n == 0) break;
        i += n;
    }
    if (i >= text.size()) return;  // the common case: nothing to repair, nothing copied
    std::string repaired;
    append_valid_utf8(repaired, std::string_view(text).substr(i));
    text.resize(i);
    text += repaired;
}

void append_valid_utf8(std::string& out, std::string_view text) {
    static constexpr std::string_view replacement = "\xEF\xBF\xBD";
    std::size_t start = 0;  // of the valid run not yet copied
    std::size_t i = 0;
    while (i < text.size()) {
        if (static_cast<unsigned char>(text[i]) < 0x80) {
            ++i;
            continue;
        }
        const std::size_t n = utf8_sequence_length(text.substr(i));
        if (n != 0) {
            i += n;
            continue;
        }
        out.append(text.substr(start, i - start));
        out.append(replacement);
        ++i;
        // The rest of a broken sequence goes with its lead byte, not one replacement each.
        while (i < text.size() && (static_cast<unsigned char>(text[i]) & 0xC0) == 0x80)
            ++i;
        start = i;
    }
    out.append(text.substr(start));
}

void append_json_text(std::string& out, const json_value& value) {
    rapidjson::StringBuffer buffer;
    finite_writer writer(buffer);
    value.Accept(writer);
    out.append(buffer.GetString(), buffer.GetSize());
}

std::string to_json_text(const json_value& value) {
    std::string out;
    append_json_text(out, value);
    return out;
}

void append_json_string(std::string& out, std::string_view text) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
    out.append(buffer.GetString(), buffer.GetSize());
}

}  // namespace dh
