#include "transceiver_catalogue.hpp"

#include <rapidjson/document.h>
#include <rapidjson/istreamwrapper.h>
#include <rapidjson/memorystream.h>

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <tuple>

#include "json_parse.hpp"
#include "msg_log.hpp"

namespace qsfpd {

namespace {

// The catalogue is trusted configuration shipped with the image: a value of the wrong type is a
// build defect, not an operating condition, so we stop instead of guessing.
[[noreturn]] void fatal_catalogue_error(const std::string& log_tag, const std::string& text) {
    MSG_LOG(msg_log::error, log_tag) << "Transceiver info file is invalid: " << text;
    std::abort();
}

std::string entry_position(std::string_view list_key, rapidjson::SizeType index) {
    return "list " + std::string(list_key) + ", entry " + std::to_string(index);
}

std::string required_string(const rapidjson::Value& entry, std::string_view key,
                            std::string_view list_key, rapidjson::SizeType index,
                            const std::string& log_tag) {
    const auto member = entry.FindMember(rapidjson::StringRef(key.data(), key.size()));
    if (member == entry.MemberEnd() || !member->value.IsString())
        fatal_catalogue_error(log_tag, entry_position(list_key, index) + ", key \"" +
                                           std::string(key) + "\": missing or not a string");
    return {member->value.GetString(), member->value.GetStringLength()};
}

void optional_flag(const rapidjson::Value& entry, std::string_view key, bool& flag,
                   std::string_view list_key, rapidjson::SizeType index,
                   const std::string& log_tag) {
    const auto member = entry.FindMember(rapidjson::StringRef(key.data(), key.size()));
    if (member == entry.MemberEnd()) return;
    if (!member->value.IsBool())
        fatal_catalogue_error(log_tag, entry_position(list_key, index) + ", key \"" +
                                           std::string(key) + "\": not a boolean");
    flag = member->value.GetBool();
}

template <typename Stream>
probe_map load_from_stream(Stream& stream,
                           const std::function<probe_factory(catalogue_list)>& factory_for,
                           const std::string& log_tag) {
    probe_map map;
    rapidjson::Document document;
    // Parsed without recursion and with bounded nesting: a hostile file is a parse error, not a
    // stack overflow at start.
    if (const auto parsed = qsfpd::parse_json(stream, document); !parsed) {
        MSG_LOG(msg_log::error, log_tag) << static_cast<int>(parsed.code);
        return map;
    }
    if (!document.IsObject()) fatal_catalogue_error(log_tag, "the root is not a JSON object");

    // The flags that carry over live outside both loops: they pass from entry to entry and from
    // list to list.
    qsfp_flags_s carried;
    for (const auto& list : catalogue_lists) {
        const auto member =
            document.FindMember(rapidjson::StringRef(list.key.data(), list.key.size()));
        if (member == document.MemberEnd()) continue;
        if (!member->value.IsArray())
            fatal_catalogue_error(log_tag, "list " + std::string(list.key) + ": not an array");
        const probe_factory factory = factory_for(list.list);
        const auto& entries = member->value;
        for (rapidjson::SizeType index = 0; index < entries.Size(); ++index) {
            const auto& entry = entries[index];
            if (!entry.IsObject())
                fatal_catalogue_error(log_tag, entry_position(list.key, index) + ": not an object");
            probe_id id;
            for (const auto& field : catalogue_entry_fields) {
                if (field.type == catalogue_value::text) {
                    id.*field.text = required_string(entry, field.key, list.key, index, log_tag);
                } else if (field.carries_over) {
                    optional_flag(entry, field.key, carried.*field.flag, list.key, index, log_tag);
                    id.flags.*field.flag = carried.*field.flag;
                } else {
                    optional_flag(entry, field.key, id.flags.*field.flag, list.key, index, log_tag);
                }
            }

            // A module listed again in a later list is driven by that list's handler, but keeps
            // the description and flags of its first entry.
            const auto [it, inserted] = map.try_emplace(std::move(id), factory);
            if (!inserted) it->second = factory;
        }
    }
    return map;
}

}  // namespace

bool probe_id_less::operator()(const probe_id& a, const probe_id& b) const {
    return std::tie(a.vendor, a.part_number) < std::tie(b.vendor, b.part_number);
}

probe_map load_probe_map(const std::string& file_path,
                         const std::function<probe_factory(catalogue_list)>& factory_for,
                         const std::string& log_tag) {
    std::ifstream in(file_path);
    if (!in.is_open()) {
        MSG_LOG(msg_log::error, log_tag) << "Could not open transceiver info file for reading";
        return {};
    }
    rapidjson::IStreamWrapper stream(in);
    return load_from_stream(stream, factory_for, log_tag);
}

probe_map load_probe_map_from_text(std::string_view json,
                                   const std::function<probe_factory(catalogue_list)>& factory_for,
                                   const std::string& log_tag) {
    // A plain byte stream like the file's: no byte-order mark is skipped, a NUL ends the text.
    rapidjson::MemoryStream stream(json.data(), json.size());
    return load_from_stream(stream, factory_for, log_tag);
}

probe_map::const_iterator find_in_map(const probe_map& map, const std::string& vendor,
                                      const std::string& part_number) {
    // Keys sort by vendor first, so one vendor's entries are contiguous and the empty pattern
    // sorts before all of them; walking from there keeps the "first in key order" rule.
    for (auto it = map.lower_bound(probe_id{vendor, {}, {}, {}});
         it != map.end() && it->first.vendor == vendor; ++it) {
        const std::string& pattern = it->first.part_number;
        if (pattern.size() != part_number.size()) continue;
        bool matches = true;
        for (std::size_t i = 0; i < pattern.size() && matches; ++i)
            matches = pattern[i] == '*' || pattern[i] == part_number[i];
        if (matches) return it;
    }
    throw std::out_of_range("Unsupported transceiver.");
}

std::string trim_and_upper_case(std::string_view text) {
    std::string result(text);
    boost::algorithm::trim(result);
    boost::algorithm::to_upper(result);
    return result;
}

}  // namespace qsfpd
