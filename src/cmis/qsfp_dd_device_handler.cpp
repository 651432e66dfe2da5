#include "qsfp_dd_device_handler.hpp"

#include <algorithm>
#include <array>
#include <system_error>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "json_parse.hpp"
#include "msg_log.hpp"
#include "qsfp_transport.hpp"
#include "system_path.hpp"
#include "tx_enable_texts.hpp"

using namespace dh::api;
using qsfpd::cage::cmis_config_status;
using qsfpd::cage::cmis_dp_state;
using qsfpd::cage::cmis_module_state;
namespace cmis = qsfpd::cmis;

namespace {

constexpr unsigned max_applications = 15;
constexpr std::uint8_t end_of_list = 0xFF;

std::string to_text(const rapidjson::Value& value) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    value.Accept(writer);
    return std::string(buffer.GetString(), buffer.GetSize());
}

std::string hex_byte(unsigned value) {
    return fmt::format("{:02X}", value);
}

// The members every interface record shows, host or media.
void add_code_members(rapidjson::Value& out, const cmis::app_code_info_t& code, unsigned lanes,
                      rapidjson::Document::AllocatorType& a) {
    out.AddMember("IdHex", rapidjson::Value(code.IdHex, a), a);
    out.AddMember("Interface", rapidjson::Value(code.Interface, a), a);
    out.AddMember("Bitrate", code.Bitrate, a);
    out.AddMember("LaneCount", lanes, a);
    out.AddMember("LaneSignalRate", static_cast<double>(code.LaneSignalRate), a);
    out.AddMember("Modulation", rapidjson::Value(code.Modulation, a), a);
    out.AddMember("B/UI", static_cast<double>(code.BitsPerUnitInterval), a);
    out.AddMember("FEC", rapidjson::Value(code.FEC, a), a);
}

unsigned module_state_of(std::uint8_t state_byte) {
    return (state_byte >> 1) & 0x07;
}

}  // namespace

qsfp_dd_device_handler::qsfp_dd_device_handler(
    dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device, std::string root_path,
    std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map, std::string vendor, std::string part_number,
    std::string part_name, std::string description, qsfp_flags_s flags, std::string data_model,
    unsigned unit, unsigned num_units, std::shared_ptr<qsfpd::clock> clock,
    bool return_to_high_power)
    : qsfp_device_handler(db, std::move(device), std::move(root_path), std::move(reg_map),
                          std::move(vendor), std::move(part_number), std::move(part_name),
                          std::move(description), flags, std::move(data_model), unit, num_units,
                          std::move(clock)),
      service_map_{
          {std::string(cmis::zelt_common_definitions::string_400G), 400},
          {std::string(cmis::zelt_common_definitions::string_4x100G), 400},
          {std::string(cmis::zelt_common_definitions::string_3x100G), 300},
          {std::string(cmis::zelt_common_definitions::string_2x100G), 200},
          {std::string(cmis::zelt_common_definitions::string_1x100G), 100},
          {std::string(cmis::zelt_common_definitions::string_100G), 100},
          {"400G", 400},
          {"300G", 300},
          {"200G", 200},
          {"100G", 100},
          {"400G-8", 400},
          {"100G-4", 100},
      },
      page_names_{{0, "Administrative Information"},
                  {1, "Advertising"},
                  {2, "Module and Lane Thresholds"},
                  {3, "User EEPROM"}},
      return_to_high_power_(return_to_high_power) {
    const std::shared_ptr<qsfp_dd_device_handler> no_owner;
    bool pre = false;
    bool post = false;
    bool amplitude = false;
    std::string version;
    unsigned major = 0;
    {
        auto lock = lock_handler();
        module_access([&] {
            paging_ = reg_map_->get_dd_support_paging();
            // The lanes of the first application the module describes (some leave the first
            // descriptors empty, host code 00h): what the module's lanes carry by default.
            for (unsigned n = 1; n <= 8; ++n) {
                const auto app = reg_map_->get_appcode_advertisement(n);
                if (app.host_interface_id == end_of_list) break;
                if (app.host_interface_id == 0) continue;
                lane_count_ =
                    app.media_lane_count != 0 ? app.media_lane_count : app.host_lane_count;
                break;
            }
            lane_count_ = std::clamp(lane_count_, 1u, qsfpd::cage::qsfp_reg_map::max_dd_lanes);
            pre = _get_rx_output_pre_cursor_supported();
            post = _get_rx_output_post_cursor_supported();
            amplitude = _get_rx_output_amplitude_supported();
            version = _get_cmis();
            major = _get_cmis_major_version();
        });
    }
    lanes_node_ =
        const_value<unsigned>::create(db_, path("data/numberOfLanes"), no_owner, lane_count_);
    pre_cursor_supported_node_ =
        const_value<bool>::create(db_, path("data/rxOutputPreCursorSupported"), no_owner, pre);
    post_cursor_supported_node_ =
        const_value<bool>::create(db_, path("data/rxOutputPostCursorSupported"), no_owner, post);
    amplitude_supported_node_ = const_value<bool>::create(
        db_, path("data/rxOutputAmplitudeSupported"), no_owner, amplitude);
    cmis_version_node_ =
        const_value<std::string>::create(db_, path("inventory/cmisVersion"), no_owner, version);
    cmis_major_node_ =
        const_value<unsigned>::create(db_, path("inventory/cmisMajorVersion"), no_owner, major);
}

qsfp_dd_device_handler::~qsfp_dd_device_handler() = default;

void qsfp_dd_device_handler::start() {
    using self_type = qsfp_dd_device_handler;
    qsfp_device_handler::start();
    const auto self = std::static_pointer_cast<self_type>(shared_from_this());

    keep_node(const_value<unsigned>::create(db_, path("param/networkLanes"), self, lane_count_));
    bool eeprom = false;
    {
        auto lock = lock_handler();
        clear_page_advertisement();
        module_access([&] {
            eeprom = paging_ && reg_map_->get_dd_support_customer_eeprom();
            const std::string banks = fmt::format(
                "{} of 256", paging_ ? reg_map_->get_dd_supported_banks_10h_to_1fh() : 1u);
            add_page_advertisement(0x00, 0, "Administrative Information", "1 of 1");
            if (!paging_) return;
            add_page_advertisement(0x01, 0, "Advertising", "1 of 1");
            add_page_advertisement(0x02, 0, "Thresholds Information", "1 of 1");
            if (eeprom) add_page_advertisement(0x03, 0, "User EEPROM", "1 of 1");
            add_page_advertisement(0x10, 0, "Lane and Data Path Control", banks);
            add_page_advertisement(0x11, 0, "Lane and Data Path Status", banks);
            if (reg_map_->get_dd_support_laser_capabilities())
                add_page_advertisement(0x12, 0, "Tuneable Laser Control and Status", "mixed");
            if (reg_map_->get_dd_support_diagnostics()) {
                add_page_advertisement(0x13, 0, "Module Performance Diagnostics Control", banks);
                add_page_advertisement(0x14, 0, "Module Performance Diagnostics Results", banks);
            }
            if (reg_map_->get_dd_support_cdb())
                add_page_advertisement(0x9F, 0, "CDB Messaging", "1 of 1");
        });
    }
    for (const auto& [page, name] : page_names_) {
        if (page != 0 && !paging_) break;
        if (page == 3 && !eeprom) break;
        group_node(volatile_value<&self_type::get_page_dump>::create(
            db_, path(fmt::format("data/pageDump/upperPage/{}", page)), self, page, name));
    }

    update_application_lists(true);
    group_node(volatile_value<&self_type::get_application_list>::create(
        db_, path("data/applicationList"), self));
    group_node(volatile_value<&self_type::get_current_application>::create(
        db_, path("data/currentApplication"), self));
    group_node(volatile_value<&self_type::get_application_number>::create(
        db_, path("data/applicationCode"), self));
    group_node(volatile_value<&self_type::get_tx_enabled>::create(
        db_, path("data/txEnabledCompletely"), self));
    group_node(volatile_value<&self_type::get_tx_disabled>::create(
        db_, path("data/txDisabledCompletely"), self));
    group_node(volatile_value<&self_type::get_total_application_code>::create(
        db_, path("data/applicationTotal"), self));
    group_node(command<&self_type::update_application_lists>::create(
        db_, path("command/UpdateApplicationLists"), self));
    group_node(command<&self_type::set_tx_enable>::create(db_, path("command/txEnable"), self));
    group_node(command<&self_type::application_compatible_select>::create(
        db_, path("command/applicationCompatibleSelect"), self));
    keep_node(const_value<std::string>::create(db_, path("inventory/fwRevision"), self,
                                               get_fw_revision()));
    for (unsigned lane = 0; lane < lane_count_; ++lane) {
        group_node(command<&self_type::set_lane_tx_enable>::create(
            db_, path(fmt::format("command/lane/{}/txEnable", lane + 1)), self, bind_args(lane)));
        const std::string data = fmt::format("data/lane/{}/", lane + 1);
        group_node(volatile_value<&self_type::get_lane_tx_enable>::create(
            db_, path(data + "txEnable"), self, lane));
        group_node(volatile_value<&self_type::get_rx_output_pre_cursor_control_id>::create(
            db_, path(data + "rxOutputPreCursorControlId"), self, lane));
        group_node(volatile_value<&self_type::get_rx_output_post_cursor_control_id>::create(
            db_, path(data + "rxOutputPostCursorControlId"), self, lane));
        group_node(volatile_value<&self_type::get_rx_output_amplitude_control_id>::create(
            db_, path(data + "rxOutputAmplitudeControlId"), self, lane));
    }
    group_node(volatile_value<&self_type::get_auto_squelch_enabled>::create(
        db_, path("data/autoSquelchDisabled"), self));
    group_node(config_param<&self_type::set_rx_output_pre_cursor_control>::create(
        db_, path("config/rxOutputPreCursorControlId"), self));
    group_node(config_param<&self_type::set_rx_output_post_cursor_control>::create(
        db_, path("config/rxOutputPostCursorControlId"), self));
    // The lower-case "a" is what clients have always used.
    group_node(config_param<&self_type::set_rx_output_amplitude_control>::create(
        db_, path("config/rxOutputamplitudeControlId"), self));
    group_node(command<&self_type::disable_auto_squelch>::create(
        db_, path("command/disableAutoSquelch"), self));
}

// --- Pages --------------------------------------------------------------------------------------

std::string qsfp_dd_device_handler::get_page_advertisement() {
    return qsfp_device_handler::get_page_advertisement();
}

bool qsfp_dd_device_handler::_page_implemented(unsigned page, unsigned bank) {
    if (page == 0 && bank == 0) return true;
    if (!paging_) return false;
    if (bank >= _banks_supported()) return false;
    switch (page) {
        case 0x01:
        case 0x02:
        case 0x10:
        case 0x11:
            return true;
        case 0x03:
            return bank == 0 && reg_map_->get_dd_support_customer_eeprom();
        case 0x04:
        case 0x12:
            return reg_map_->get_dd_support_laser_capabilities();
        case 0x13:
        case 0x14:
            return reg_map_->get_dd_support_diagnostics();
        case 0x9F:
            return bank == 0 && reg_map_->get_dd_support_cdb();
        default:
            return page >= 0x20 && page <= 0x2F ? reg_map_->get_dd_support_vdm() : page >= 0x30;
    }
}

unsigned qsfp_dd_device_handler::_banks_supported() {
    return paging_ ? reg_map_->get_banks_supported() : 1;
}

// --- Inventory ----------------------------------------------------------------------------------

unsigned qsfp_dd_device_handler::_get_cmis_major_version() {
    return reg_map_->get_status_revision_compliance() >> 4;
}

std::string qsfp_dd_device_handler::_get_cmis() {
    const unsigned revision = reg_map_->get_status_revision_compliance();
    return fmt::format("{}.{}", revision >> 4, revision & 0x0F);
}

unsigned qsfp_dd_device_handler::get_cmis_major_version() {
    auto lock = lock_handler();
    return read_for("get_cmis_major_version", [&] { return _get_cmis_major_version(); });
}

std::string qsfp_dd_device_handler::get_cmis() {
    auto lock = lock_handler();
    return read_for("get_cmis", [&] { return _get_cmis(); });
}

std::string qsfp_dd_device_handler::get_fw_revision() {
    auto lock = lock_handler();
    return read_for("get_fw_revision", [&] {
        return fmt::format("{}.{}", reg_map_->get_dd_fw_major_rev(),
                           reg_map_->get_dd_fw_minor_rev());
    });
}

// --- Applications -------------------------------------------------------------------------------

bool qsfp_dd_device_handler::update_application_lists(bool from_file) {
    auto lock = lock_handler();
    return _update_application_lists(from_file);
}

bool qsfp_dd_device_handler::_update_application_lists(bool from_file) {
    // "false" re-reads the module's advertisement only, with the vendor codes already known.
    if (from_file || !file_alarm_node_) {
        const std::string file = qsfpd::system_path(cmis::application_list_file::default_path);
        auto contents = cmis::application_list_file::read(file, config_tag());
        publish_file_nodes(contents);
        custom_map_ = std::move(contents.custom);
    }
    read_for("read_application_and_update_app_codes",
             [&] { read_application_and_update_app_codes(); });
    return true;
}

void qsfp_dd_device_handler::publish_file_nodes(const cmis::application_file_contents& contents) {
    const auto self = std::static_pointer_cast<qsfp_dd_device_handler>(shared_from_this());
    if (!file_alarm_node_)
        file_alarm_node_ = keep_node(
            status_value<bool>::create(db_, path("alarm/readFromApplicationFile"), self, false));
    file_alarm_node_->update(!contents.exists);
    if (contents.version) {
        if (!file_version_node_)
            file_version_node_ = keep_node(status_value<std::string>::create(
                db_, path("data/applicationFileVersion"), self, *contents.version));
        file_version_node_->update(*contents.version);
    }
    if (contents.cmis_version) {
        if (!file_cmis_version_node_)
            file_cmis_version_node_ = keep_node(status_value<std::string>::create(
                db_, path("data/applicationFileCMISVersion"), self, *contents.cmis_version));
        file_cmis_version_node_->update(*contents.cmis_version);
    }
}

const cmis::app_code_info_t* qsfp_dd_device_handler::find_media_code(std::uint8_t encoding,
                                                                     unsigned id) {
    const auto table = cmis::media_table_of(encoding);
    if (!table) {
        MSG_LOG(msg_log::warning, info_tag()) << "Unknown code. Unsupported media type";
        return nullptr;
    }
    if (const auto* found = cmis::find_code(*table, id)) return found;
    // Vendor codes: the operator's file first, then the ones built in, by part number.
    const std::array<const cmis::custom_app_map*, 2> vendor_maps = {&custom_map_,
                                                                    &cmis::builtin_custom_codes()};
    for (const auto* customs : vendor_maps) {
        const auto product = customs->find(part_number_);
        if (product == customs->end()) continue;
        const auto code = product->second.find(id);
        if (code != product->second.end()) return &code->second;
    }
    MSG_LOG(msg_log::warning, info_tag())
        << "Unknown " << cmis::table_word(*table) << " code. Could not find id " << id
        << ", media type: " << unsigned{encoding};
    return nullptr;
}

void qsfp_dd_device_handler::read_application_and_update_app_codes() {
    auto lock = lock_handler();
    app_map_.clear();
    const std::uint8_t encoding = reg_map_->get_media_type_encoding();
    const std::string tag = info_tag();
    for (unsigned n = 1; n <= max_applications; ++n) {
        const auto adv = reg_map_->get_appcode_advertisement(n);
        if (adv.host_interface_id == end_of_list) break;
        MSG_LOG(msg_log::info, tag)
            << "Reading advertisement. host_interface_id:" << unsigned{adv.host_interface_id};
        MSG_LOG(msg_log::info, tag)
            << "Reading advertisement. media_interface_id:" << unsigned{adv.media_interface_id};
        MSG_LOG(msg_log::info, tag)
            << "Reading advertisement. host_lane_count:" << unsigned{adv.host_lane_count};
        MSG_LOG(msg_log::info, tag)
            << "Reading advertisement. media_lane_count:" << unsigned{adv.media_lane_count};
        MSG_LOG(msg_log::info, tag) << "Reading advertisement. host_lane_assignment_options:"
                                    << unsigned{adv.host_lane_assignment_options};
        MSG_LOG(msg_log::info, tag) << "Reading advertisement. media_lane_assignment_options:"
                                    << unsigned{adv.media_lane_assignment_options};
        applicationList_t app;
        app.app_sel = n;
        const auto* host = cmis::find_code(cmis::code_table::host, adv.host_interface_id);
        app.host = host ? *host : cmis::unknown_app_code(adv.host_interface_id);
        const auto* media = find_media_code(encoding, adv.media_interface_id);
        app.media = media ? *media : cmis::unknown_app_code(adv.media_interface_id);
        app.host_lane_count = adv.host_lane_count;
        app.media_lane_count = adv.media_lane_count;
        app.host_lane_assignment = adv.host_lane_assignment_options;
        app.media_lane_assignment = adv.media_lane_assignment_options;
        app.enhanced_mode = !app.media.EnhancedMode.empty();
        app_map_.emplace(n, std::move(app));  // the first entry for a number wins
    }
}

std::map<unsigned, qsfp_dd_device_handler::applicationList_t>
qsfp_dd_device_handler::application_map() {
    auto lock = lock_handler();
    return {app_map_.begin(), app_map_.end()};
}

json_object qsfp_dd_device_handler::get_application_list() {
    auto lock = lock_handler();
    if (app_map_.empty()) throw dh_error(dh::errc::invalid, "Application list is empty");
    rapidjson::Document doc(rapidjson::kArrayType);
    auto& a = doc.GetAllocator();
    for (const auto& [number, app] : application_map()) {
        rapidjson::Value entry(rapidjson::kObjectType);
        entry.AddMember("AppSel", number, a);
        rapidjson::Value host(rapidjson::kObjectType);
        add_code_members(host, app.host, app.host_lane_count, a);
        host.AddMember("LaneAssignmentHex", rapidjson::Value(hex_byte(app.host_lane_assignment), a),
                       a);
        rapidjson::Value media(rapidjson::kObjectType);
        add_code_members(media, app.media, app.media_lane_count, a);
        media.AddMember("LaneAssignmentHex",
                        rapidjson::Value(hex_byte(app.media_lane_assignment), a), a);
        media.AddMember("LaneAssignment", app.media_lane_assignment, a);
        media.AddMember("EnhancedMode", rapidjson::Value(app.media.EnhancedMode, a), a);
        entry.AddMember("HostCode", host, a);
        entry.AddMember("MediaCode", media, a);
        doc.PushBack(entry, a);
    }
    return {to_text(doc)};
}

std::string qsfp_dd_device_handler::application_json(const applicationList_t& app) {
    rapidjson::Document doc(rapidjson::kObjectType);
    auto& a = doc.GetAllocator();
    add_code_members(doc, app.media, app.media_lane_count, a);
    doc.AddMember("LaneAssignment", app.media_lane_assignment, a);
    doc.AddMember("EnhancedMode", rapidjson::Value(app.media.EnhancedMode, a), a);
    doc.AddMember("AppSel", app.app_sel, a);
    return to_text(doc);
}

const qsfp_dd_device_handler::applicationList_t&
qsfp_dd_device_handler::_get_current_application_info() {
    const unsigned number = _get_application_number();
    const auto it = app_map_.find(number);
    if (it == app_map_.end())
        throw dh_error(dh::errc::invalid,
                       "Current application code does not match advertised applications");
    return it->second;
}

json_object qsfp_dd_device_handler::get_current_application() {
    auto lock = lock_handler();
    require_paging("Current application");
    const auto& app = read_for("get_current_application", [&]() -> const applicationList_t& {
        return _get_current_application_info();
    });
    return {application_json(app)};
}

unsigned qsfp_dd_device_handler::_get_application_number() {
    return reg_map_->get_dd_active_cntl_set_app() >> 4;
}

unsigned qsfp_dd_device_handler::get_application_number() {
    auto lock = lock_handler();
    require_paging("Application code");
    return read_for("get_application_number", [&] { return _get_application_number(); });
}

unsigned qsfp_dd_device_handler::_get_current_bitrate() {
    // The host interface names its rate whatever the medium ("400GAUI-8 C2M"); a copper media
    // code ("Copper cable") does not. The media name is the fallback.
    const auto& app = _get_current_application_info();
    for (const auto* name : {&app.host.Interface, &app.media.Interface}) {
        if (*name == "n/a") continue;
        if (const unsigned rate = qsfpd::cage::qsfp_reg_map::get_current_bitrate(*name))
            return rate;
    }
    return 0;
}

unsigned qsfp_dd_device_handler::get_total_application_code() {
    auto lock = lock_handler();
    return read_for("get_total_application_code",
                    [&] { return reg_map_->get_total_application_code_advertisement(); });
}

bool qsfp_dd_device_handler::application_compatible_select(json_object document) {
    rapidjson::Document doc;
    const auto parsed = qsfpd::parse_json<0>(document.text.c_str(), document.text.size(), doc);
    if (parsed.code != rapidjson::kParseErrorNone)
        throw dh_error(dh::errc::invalid, "Invalid json structure.");
    set_application_code(doc);
    return true;
}

void qsfp_dd_device_handler::set_application_code(const rapidjson::Document& document) {
    auto lock = lock_handler();
    const std::string tag = config_tag();
    if (!document.IsObject() || !document.HasMember("service") || !document["service"].IsString() ||
        !document.HasMember("app_select") || !document["app_select"].IsNumber())
        throw dh_error(dh::errc::invalid, "Invalid json structure.");
    const std::string service = document["service"].GetString();
    const auto& app_select = document["app_select"];
    const unsigned total = read_for("set_application_code", [&] {
        return reg_map_->get_total_application_code_advertisement();
    });
    // Any number a client may send: negative, fractional or huge values are out of range too.
    const bool whole = app_select.IsUint64() && app_select.GetUint64() <= max_applications;
    const unsigned number = whole ? static_cast<unsigned>(app_select.GetUint64()) : 0;
    if (!whole || number == 0 || number > total) {
        const std::string shown = app_select.IsUint64()  ? std::to_string(app_select.GetUint64())
                                  : app_select.IsInt64() ? std::to_string(app_select.GetInt64())
                                                         : to_text(app_select);
        throw dh_error(dh::errc::invalid, "Invalid application code " + shown + ". Range [1-" +
                                              std::to_string(total) + "].");
    }
    require_paging("Application select");
    // The service is checked before anything else is read or changed: with no application
    // running, a service nobody handles would otherwise reach the module.
    const auto wanted = service_map_.find(service);
    if (wanted == service_map_.end())
        throw dh_error(dh::errc::invalid, "Invalid service " + service + ". Service not handled!");
    // An empty descriptor inside the list (host code 00h, no lanes) names no application.
    const auto requested = app_map_.find(number);
    if (requested == app_map_.end() || requested->second.host_lane_count == 0)
        throw dh_error(dh::errc::invalid, "Application code " + std::to_string(number) +
                                              " describes no application of the module");

    unsigned active = 0;
    try {
        active = _get_application_number();
    } catch (const std::system_error& e) {
        MSG_LOG(msg_log::warning, tag) << e.what();
        MSG_LOG(msg_log::info, tag)
            << "No current application found. Setting application code " << number;
        _set_application_code(number, service);
        return;
    }
    const auto current = app_map_.find(active);
    if (current == app_map_.end()) {
        MSG_LOG(msg_log::info, tag)
            << "No current application info found. Setting application code " << number;
        _set_application_code(number, service);
        return;
    }
    if (active != number || wanted->second != _get_current_bitrate()) {
        _set_application_code(number, service);
        return;
    }
    MSG_LOG(msg_log::info, tag) << "Setting application code " << number
                                << ". But app is already configured. Skip operation";
}

void qsfp_dd_device_handler::enter_low_power_for_reconfiguration() {
    // A module heeds the LPMode line only with LowPwrAllowRequestHW set; some leave the factory
    // without it, and would then be reconfigured at full power after a 6 s wait.
    if (!reg_map_->get_dd_low_pwr_allow_request_hw())
        reg_map_->set_dd_low_pwr_allow_request_hw(true);
    device_->pin_set(qsfpd::cage::line::lpmode, true);
    for (unsigned attempt = 0; attempt < low_power_wait_tries; ++attempt) {
        clock_->sleep_for(low_power_wait_step);
        const auto state = module_state_of(reg_map_->get_dd_mod_state());
        if (state == static_cast<unsigned>(cmis_module_state::low_pwr)) return;
    }
    // A module that never reports low power is reconfigured all the same.
}

void qsfp_dd_device_handler::leave_low_power_after_reconfiguration() {
    if (return_to_high_power_) device_->pin_set(qsfpd::cage::line::lpmode, false);
}

void qsfp_dd_device_handler::_set_application_code(unsigned code, const std::string& service) {
    MSG_LOG(msg_log::info, config_tag())
        << "Setting application code to " << code << " with service " << service;
    read_for("_set_application_code", [&] {
        enter_low_power_for_reconfiguration();
        try {
            reg_map_->set_application_code(static_cast<std::uint8_t>(code & 0xFF), service);
        } catch (...) {
            leave_low_power_after_reconfiguration();
            throw;
        }
        leave_low_power_after_reconfiguration();
        check_application_taken(code);
    });
}

void qsfp_dd_device_handler::_apply_config() {
    read_for("_apply_config", [&] {
        enter_low_power_for_reconfiguration();
        try {
            reg_map_->set_dd_apply_dp_init();
        } catch (...) {
            leave_low_power_after_reconfiguration();
            throw;
        }
        leave_low_power_after_reconfiguration();
    });
}

void qsfp_dd_device_handler::check_application_taken(unsigned code) {
    // Modules have been seen to answer ConfigSuccess yet keep their old active set, and to
    // refuse a partial data path: what the module runs is read back, not assumed. The wait is
    // bounded by what the module advertises for power-up and data path init.
    const auto staged = reg_map_->get_dd_staged_dp_config();
    const auto tries = static_cast<unsigned>(
        (reg_map_->get_dd_module_pwr_up_max_ms() + reg_map_->get_dd_dp_init_max_ms()) /
            low_power_wait_step.count() +
        1);
    const unsigned first_lane = static_cast<unsigned>(
        std::find_if(staged.begin(), staged.end(), [](std::uint8_t b) { return b >> 4; }) -
        staged.begin());
    const unsigned lane = first_lane < staged.size() ? first_lane : 0;
    // Held in low power (no return to high power, or the port is administratively down): the
    // data path will not run, only the configuration is there to check.
    const bool stays_low = !return_to_high_power_ || reg_map_->get_dd_low_pwr_request_sw();
    auto settled = [&] {
        if (reg_map_->get_dd_config_status(lane) ==
            static_cast<std::uint8_t>(cmis_config_status::in_progress))
            return false;
        if (stays_low) return true;  // no data path runs in low power
        return module_state_of(reg_map_->get_dd_mod_state()) ==
                   static_cast<unsigned>(cmis_module_state::ready) &&
               reg_map_->get_dd_dp_state(lane) ==
                   static_cast<std::uint8_t>(cmis_dp_state::activated);
    };
    for (unsigned attempt = 0; attempt < tries && !settled(); ++attempt)
        clock_->sleep_for(low_power_wait_step);

    const std::uint8_t status = reg_map_->get_dd_config_status(lane);
    const unsigned running = reg_map_->get_dd_active_app_per_lane()[lane];
    if (status != static_cast<std::uint8_t>(cmis_config_status::success) || running != code)
        MSG_LOG(msg_log::warning, config_tag())
            << "Application code " << code << " not taken by the module, config status "
            << qsfpd::cage::config_status_name(status) << ", active application " << running << " "
            << module_name();
}

unsigned qsfp_dd_device_handler::_count_active_clients() {
    const auto apps = reg_map_->get_dd_active_app_per_lane();
    unsigned clients = 0;
    for (unsigned lane = 0; lane < apps.size();) {
        const auto* app = apps[lane] != 0 ? find_application(apps[lane]) : nullptr;
        if (!app || app->host_lane_count == 0) {
            ++lane;
            continue;
        }
        ++clients;
        lane += app->host_lane_count;
    }
    return clients;
}

// --- Transmitters -------------------------------------------------------------------------------

void qsfp_dd_device_handler::require_paging(const char* what) const {
    if (!paging_)
        throw dh_error(dh::errc::invalid,
                       std::string(what) + " is not available on a flat-memory module");
}

bool qsfp_dd_device_handler::_get_tx_enabled() {
    return reg_map_->get_dd_tx_laser_enabled(lane_count_);
}

bool qsfp_dd_device_handler::_get_tx_disabled() {
    return reg_map_->get_dd_tx_laser_disabled(lane_count_);
}

bool qsfp_dd_device_handler::get_tx_enabled() {
    auto lock = lock_handler();
    require_paging("TX enable");
    return read_for("get_tx_enabled", [&] { return _get_tx_enabled(); });
}

bool qsfp_dd_device_handler::get_tx_disabled() {
    auto lock = lock_handler();
    require_paging("TX enable");
    return read_for("get_tx_disabled", [&] { return _get_tx_disabled(); });
}

bool qsfp_dd_device_handler::_get_lane_tx_enable(unsigned lane) {
    return !reg_map_->get_dd_lane_tx_disable(lane);
}

bool qsfp_dd_device_handler::get_lane_tx_enable(unsigned lane) {
    auto lock = lock_handler();
    require_paging("TX enable");
    return read_for("get_lane_tx_enable", [&] { return _get_lane_tx_enable(lane); });
}

bool qsfp_dd_device_handler::set_tx_enable(const bool& enable) {
    auto lock = lock_handler();
    require_paging("TX enable");
    const std::string tag = config_tag();
    read_for("set_tx_enable", [&] {
        const bool already = enable ? _get_tx_enabled() : _get_tx_disabled();
        MSG_LOG(msg_log::info, tag) << qsfpd::tx_texts::module(enable, already, module_name());
        if (!already) reg_map_->set_dd_tx_disable(!enable);
    });
    return true;
}

bool qsfp_dd_device_handler::set_lane_tx_enable(const unsigned& lane, const bool& enable) {
    auto lock = lock_handler();
    const std::string tag = config_tag();
    if (lane >= lane_count_) {
        const auto text = qsfpd::tx_texts::lane_not_available(lane, module_name());
        MSG_LOG(msg_log::warning, tag) << text;
        throw dh_error(dh::errc::invalid, text);
    }
    require_paging("TX enable");
    read_for("set_lane_tx_enable", [&] {
        const bool already = _get_lane_tx_enable(lane) == enable;
        MSG_LOG(msg_log::info, tag) << qsfpd::tx_texts::lane(lane, enable, already, module_name());
        if (!already) reg_map_->set_dd_lane_tx_disable(lane, !enable);
    });
    return true;
}

// --- RX output equalisation and squelch ---------------------------------------------------------

bool qsfp_dd_device_handler::_get_rx_output_pre_cursor_supported() {
    return reg_map_->get_dd_rx_output_pre_cursor_supported();
}
bool qsfp_dd_device_handler::_get_rx_output_post_cursor_supported() {
    return reg_map_->get_dd_rx_output_post_cursor_supported();
}
bool qsfp_dd_device_handler::_get_rx_output_amplitude_supported() {
    return reg_map_->get_dd_rx_output_amplitude_supported();
}

bool qsfp_dd_device_handler::get_rx_output_pre_cursor_supported() {
    auto lock = lock_handler();
    return read_for("get_rx_output_pre_cursor_supported",
                    [&] { return _get_rx_output_pre_cursor_supported(); });
}
bool qsfp_dd_device_handler::get_rx_output_post_cursor_supported() {
    auto lock = lock_handler();
    return read_for("get_rx_output_post_cursor_supported",
                    [&] { return _get_rx_output_post_cursor_supported(); });
}
bool qsfp_dd_device_handler::get_rx_output_amplitude_supported() {
    auto lock = lock_handler();
    return read_for("get_rx_output_amplitude_supported",
                    [&] { return _get_rx_output_amplitude_supported(); });
}

unsigned qsfp_dd_device_handler::get_rx_output_pre_cursor_control_id(unsigned lane) {
    auto lock = lock_handler();
    require_paging("RX output control");
    return read_for("get_rx_output_pre_cursor_control_id",
                    [&] { return reg_map_->get_dd_lane_rx_output_pre_cursor_control(lane); });
}
unsigned qsfp_dd_device_handler::get_rx_output_post_cursor_control_id(unsigned lane) {
    auto lock = lock_handler();
    require_paging("RX output control");
    return read_for("get_rx_output_post_cursor_control_id",
                    [&] { return reg_map_->get_dd_lane_rx_output_post_cursor_control(lane); });
}
unsigned qsfp_dd_device_handler::get_rx_output_amplitude_control_id(unsigned lane) {
    auto lock = lock_handler();
    require_paging("RX output control");
    return read_for("get_rx_output_amplitude_control_id",
                    [&] { return reg_map_->get_dd_lane_rx_output_amplitude_control(lane); });
}

void qsfp_dd_device_handler::check_rx_output(bool supported, const char* what, const char* name,
                                             unsigned id, unsigned min, unsigned max) {
    if (!supported)
        throw dh_error(dh::errc::invalid, fmt::format("Configuration of rx output {} is not "
                                                      "supported on this transceiver",
                                                      what));
    if (id < min || id > max)
        throw dh_error(dh::errc::invalid,
                       fmt::format("Invalid {} id: {} range is {} to {}", name, id, min, max));
}

void qsfp_dd_device_handler::set_rx_output_pre_cursor_control(unsigned id) {
    auto lock = lock_handler();
    const bool supported = read_for("set_rx_output_pre_cursor_control",
                                    [&] { return _get_rx_output_pre_cursor_supported(); });
    check_rx_output(supported, "pre-cursor", "pre-cursor", id, rx_pre_cursor_min_,
                    rx_pre_cursor_max_);
    read_for("set_rx_output_pre_cursor_control",
             [&] { reg_map_->set_dd_rx_output_pre_cursor_control(static_cast<std::uint8_t>(id)); });
}

void qsfp_dd_device_handler::set_rx_output_post_cursor_control(unsigned id) {
    auto lock = lock_handler();
    const bool supported = read_for("set_rx_output_post_cursor_control",
                                    [&] { return _get_rx_output_post_cursor_supported(); });
    check_rx_output(supported, "post-cursor", "post-cursor", id, rx_post_cursor_min_,
                    rx_post_cursor_max_);
    read_for("set_rx_output_post_cursor_control", [&] {
        reg_map_->set_dd_rx_output_post_cursor_control(static_cast<std::uint8_t>(id));
    });
}

void qsfp_dd_device_handler::set_rx_output_amplitude_control(unsigned id) {
    auto lock = lock_handler();
    const bool supported = read_for("set_rx_output_amplitude_control",
                                    [&] { return _get_rx_output_amplitude_supported(); });
    check_rx_output(supported, "amplitude", "amplitude", id, rx_amplitude_min_, rx_amplitude_max_);
    read_for("set_rx_output_amplitude_control",
             [&] { reg_map_->set_dd_rx_output_amplitude_control(static_cast<std::uint8_t>(id)); });
}

bool qsfp_dd_device_handler::_get_auto_squelch_disable_supported() {
    return reg_map_->get_dd_auto_squelch_disable_supported();
}

bool qsfp_dd_device_handler::_get_auto_squelch_enabled() {
    return reg_map_->get_auto_squelch();
}

void qsfp_dd_device_handler::_disable_auto_squelch(bool disable) {
    reg_map_->set_dd_auto_squelch_disable(disable);
}

bool qsfp_dd_device_handler::get_auto_squelch_enabled() {
    auto lock = lock_handler();
    require_paging("Auto squelch");
    return read_for("get_auto_squelch_enabled", [&] { return _get_auto_squelch_enabled(); });
}

bool qsfp_dd_device_handler::disable_auto_squelch(bool disable) {
    auto lock = lock_handler();
    require_paging("Auto squelch");
    const bool supported =
        read_for("disable_auto_squelch", [&] { return _get_auto_squelch_disable_supported(); });
    if (!supported)
        throw dh_error(dh::errc::invalid,
                       "Disabling auto squelch is not supported on this transceiver");
    read_for("disable_auto_squelch", [&] { _disable_auto_squelch(disable); });
    return true;
}
