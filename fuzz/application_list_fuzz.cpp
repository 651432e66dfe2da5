// The application list reader against qsfp-config-check: on any text the reader must not crash,
// a text the checker finds unparsable must leave it without custom codes, every code it keeps
// must be a well-formed record under its own key, and when the checker finds no error every code
// element of the file must be kept (the checker's errors are exactly what the reader skips).
#include <fmt/format.h>

#include <cstdint>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>

#include "application_list_file.hpp"
#include "fuzz_support.hpp"
#include "json_outline.hpp"
#include "run_config_check.hpp"

namespace {

namespace cmis = qsfpd::cmis;
using qsfpd::fuzz::fail;

const config_check::json_node* member(const config_check::json_outline& outline,
                                      const config_check::json_node& object, std::string_view key) {
    if (object.type != config_check::json_type::object) return nullptr;
    for (const auto* child : outline.children(object))
        if (child->key == key) return child;
    return nullptr;
}

// The part numbers and IdHex texts of every code element, as the file writes them.
std::set<std::pair<std::string, std::string>> written_codes(
    const config_check::json_outline& outline) {
    std::set<std::pair<std::string, std::string>> codes;
    const auto* table = member(outline, outline.root(), cmis::table_key);
    const auto* custom = table ? member(outline, *table, cmis::custom_key) : nullptr;
    if (!custom) return codes;
    for (const auto* product : outline.children(*custom)) {
        const auto* name = member(outline, *product, cmis::product_name_key);
        const auto* list = member(outline, *product, cmis::product_codes_key);
        if (!name || !list) fail("the checker passed a product the reader skips");
        for (const auto* code : outline.children(*list)) {
            const auto* id = member(outline, *code, "IdHex");
            if (!id) fail("the checker passed a code without IdHex");
            codes.emplace(name->text, id->text);
        }
    }
    return codes;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    qsfpd::fuzz::discard_logs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const config_check::json_outline outline(text);
    const auto problems =
        config_check::check_outline(outline, *config_check::kind_named("application-list"));
    const auto contents = cmis::application_list_file::read_text(text, "fuzz", "/dev/qsfp");

    if (contents.parsed == problems.syntax_failed()) fail("reader and checker disagree on syntax");
    if (!contents.parsed && !contents.custom.empty()) fail("an unparsable text gave codes");

    std::size_t kept = 0;
    for (const auto& [product, codes] : contents.custom) {
        for (const auto& [code, record] : codes) {
            if (code > 0xFF || record.IdHex != fmt::format("{:X}", code))
                fail("a code is kept under another key than its IdHex");
            if (record.FEC != cmis::custom_fec) fail("a custom code has a FEC");
            ++kept;
        }
    }
    if (contents.parsed && !problems.has_errors()) {
        // Codes written twice for one part number are kept once: count by normalised code.
        std::set<std::pair<std::string, unsigned>> distinct;
        for (const auto& [product, id] : written_codes(outline))
            distinct.emplace(product, static_cast<unsigned>(std::stoul(id, nullptr, 16)));
        if (distinct.size() != kept) fail("the checker passed a code the reader did not keep");
    }

    // Whatever the text, allocate_custom_map refuses anything but an array.
    rapidjson::Document document;
    document.SetObject();
    try {
        cmis::application_list_file::allocate_custom_map(document, "/dev/qsfp");
        fail("allocate_custom_map took an object");
    } catch (const std::invalid_argument&) {
    }
    return 0;
}
