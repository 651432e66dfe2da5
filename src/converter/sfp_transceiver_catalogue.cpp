#include "sfp_transceiver_catalogue.hpp"

#include <rapidjson/document.h>
#include <rapidjson/istreamwrapper.h>
#include <rapidjson/memorystream.h>

#include <fstream>
#include <stdexcept>
#include <tuple>

#include "json_parse.hpp"
#include "msg_log.hpp"

namespace qsfpd {

namespace {

// A catalogue fault, with where it is; load_from_stream turns it into one log line.
struct invalid_catalogue : std::runtime_error {
    using std::runtime_error::runtime_error;
};

std::string position(std::string_view list_key, rapidjson::SizeType index, std::string_view key) {
    return "list " + std::string(list_key) + ", entry " + std::to_string(index) + ", key \"" +
           std::string(key) + "\"";
}

const rapidjson::Value* member(const rapidjson::Value& entry, std::string_view key) {
    const auto it = entry.FindMember(rapidjson::StringRef(key.data(), key.size()));
    return it == entry.MemberEnd() ? nullptr : &it->value;
}

std::string text(const rapidjson::Value& entry, std::string_view key, std::string_view list_key,
                 rapidjson::SizeType index) {
    const auto* v = member(entry, key);
    if (v == nullptr || !v->IsString())
        throw invalid_catalogue(position(list_key, index, key) + ": missing or not a string");
    return {v->GetString(), v->GetStringLength()};
}

void flag(const rapidjson::Value& entry, std::string_view key, bool& out, std::string_view list_key,
          rapidjson::SizeType index) {
    const auto* v = member(entry, key);
    if (v == nullptr) return;
    if (!v->IsBool()) throw invalid_catalogue(position(list_key, index, key) + ": not a boolean");
    out = v->GetBool();
}

sfp_flags_s flags_of(const rapidjson::Value& entry, std::string_view list_key,
                     rapidjson::SizeType index) {
    sfp_flags_s flags;
    // Only an entry that names its WDM type carries the other flags: the files in the field were
    // written that way, and an entry without "wdm" keeps every default even if it lists them.
    const auto* wdm = member(entry, "wdm");
    if (wdm == nullptr) return flags;
    const auto type =
        wdm->IsString() ? wdm_type_of({wdm->GetString(), wdm->GetStringLength()}) : std::nullopt;
    if (!type)
        throw invalid_catalogue(position(list_key, index, "wdm") +
                                ": not one of NONE, DWDM, CWDM, SR850NM, LR1310NM");
    flags.wdm_type = *type;
    flag(entry, "isTunable", flags.isTunable, list_key, index);
    flag(entry, "isCertified", flags.isCertified, list_key, index);
    flag(entry, "isLosWorkaround", flags.isLosWorkaround, list_key, index);
    if (const auto* hyst = member(entry, "softLOSHyst")) {
        if (!hyst->IsInt())
            throw invalid_catalogue(position(list_key, index, "softLOSHyst") + ": not an integer");
        flags.softLOSHyst = hyst->GetInt();
    }
    flag(entry, "isFlextune", flags.isFlextune, list_key, index);
    flag(entry, "isUOTDR", flags.isUOTDR, list_key, index);
    return flags;
}

template <typename Stream>
sfp_probe_map load_from_stream(
    Stream& stream, const std::function<sfp_probe_factory(sfp_catalogue_list)>& factory_for,
    const std::string& log_tag) {
    rapidjson::Document document;
    if (const auto parsed = qsfpd::parse_json(stream, document); !parsed) {
        MSG_LOG(msg_log::error, log_tag) << static_cast<int>(parsed.code);
        return {};
    }
    sfp_probe_map map;
    try {
        if (!document.IsObject()) throw invalid_catalogue("the root is not a JSON object");
        for (const auto& list : sfp_catalogue_lists) {
            const auto* entries = member(document, list.key);
            if (entries == nullptr) continue;
            if (!entries->IsArray())
                throw invalid_catalogue("list " + std::string(list.key) + ": not an array");
            const sfp_probe_factory factory = factory_for(list.list);
            for (rapidjson::SizeType index = 0; index < entries->Size(); ++index) {
                const auto& entry = (*entries)[index];
                if (!entry.IsObject())
                    throw invalid_catalogue("list " + std::string(list.key) + ", entry " +
                                            std::to_string(index) + ": not an object");
                sfp_probe_id id;
                id.part_number = text(entry, "partNumber", list.key, index);
                id.part_name = text(entry, "partName", list.key, index);
                id.vendor = text(entry, "vendor", list.key, index);
                id.flags = flags_of(entry, list.key, index);
                map.try_emplace(std::move(id), factory);
            }
        }
    } catch (const invalid_catalogue& e) {
        MSG_LOG(msg_log::error, log_tag) << "Transceiver info file is invalid: " << e.what();
        return {};
    }
    return map;
}

}  // namespace

bool sfp_probe_id_less::operator()(const sfp_probe_id& a, const sfp_probe_id& b) const {
    return std::tie(a.vendor, a.part_number, a.part_name) <
           std::tie(b.vendor, b.part_number, b.part_name);
}

sfp_probe_map load_sfp_probe_map(
    const std::string& file_path,
    const std::function<sfp_probe_factory(sfp_catalogue_list)>& factory_for,
    const std::string& log_tag) {
    std::ifstream in(file_path);
    if (!in.is_open()) {
        MSG_LOG(msg_log::error, log_tag) << "Could not open transceiver info file for reading";
        return {};
    }
    rapidjson::IStreamWrapper stream(in);
    return load_from_stream(stream, factory_for, log_tag);
}

sfp_probe_map load_sfp_probe_map_from_text(
    std::string_view json, const std::function<sfp_probe_factory(sfp_catalogue_list)>& factory_for,
    const std::string& log_tag) {
    rapidjson::MemoryStream stream(json.data(), json.size());
    return load_from_stream(stream, factory_for, log_tag);
}

bool sfp_part_number_matches(std::string_view pattern, std::string_view part_number) {
    if (part_number.starts_with(pattern)) return true;
    if (pattern.size() != part_number.size()) return false;
    for (std::size_t i = 0; i < pattern.size(); ++i)
        if (pattern[i] != '*' && pattern[i] != part_number[i]) return false;
    return true;
}

sfp_probe_map::const_iterator find_in_sfp_map(const sfp_probe_map& map, const std::string& vendor,
                                              const std::string& part_number) {
    for (auto it = map.lower_bound(sfp_probe_id{vendor, {}, {}, {}});
         it != map.end() && it->first.vendor == vendor; ++it)
        if (sfp_part_number_matches(it->first.part_number, part_number)) return it;
    throw std::out_of_range("Unsupported transceiver.");
}

}  // namespace qsfpd
