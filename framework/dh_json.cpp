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

}  // namespace

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
