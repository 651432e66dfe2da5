#include "qsfp_passive_converter_device_handler.hpp"

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <array>

#include <fmt/format.h>
#include <boost/algorithm/string/trim.hpp>

#include "converter_sfp_device.hpp"
#include "sfp_plus_optical_device_handler.hpp"
#include "sfp_plus_passive_device_handler.hpp"
#include "sfp_plus_test_plug_device_handler.hpp"
#include "sfp_plus_voa_device_handler.hpp"
#include "system_path.hpp"

using namespace dh::api;

namespace {

constexpr std::uint8_t identifier_dwdm_sfp = 11;  // SFF-8024: DWDM-SFP/SFP+ (not SFF-8472)

std::shared_ptr<sfp_reg_map> sfp_map_of(const std::shared_ptr<qsfpd::cage::qsfp_device>& device) {
    // The adapter routes the SFP's addresses only in converter mode.
    device->set_converter_flag(true);
    return std::make_shared<sfp_reg_map>(
        std::make_shared<qsfpd::cage::converter_sfp_device>(device));
}

std::string trimmed(std::string text) {
    boost::algorithm::trim(text);
    return text;
}

// The SFP's identity text for the base's inventory; the manager's reading (SFF-8636 offsets of
// an SFF-8472 memory) when the SFP does not answer.
std::string sfp_text(const std::shared_ptr<qsfpd::cage::qsfp_device>& device,
                     std::string (sfp_reg_map::*field)() const, std::string fallback) {
    try {
        return trimmed((sfp_map_of(device).get()->*field)());
    } catch (const std::exception&) {
        return fallback;
    }
}

std::string page_dump_json(const std::string& name, unsigned page, const std::string& description,
                           const std::uint8_t* bytes, std::size_t length) {
    rapidjson::Document doc(rapidjson::kObjectType);
    auto& a = doc.GetAllocator();
    doc.AddMember("page", rapidjson::Value(name.c_str(), a), a);
    doc.AddMember("bank", 0, a);
    doc.AddMember("pageNumber", page, a);
    doc.AddMember("description", rapidjson::Value(description.c_str(), a), a);
    rapidjson::Value rows(rapidjson::kArrayType);
    for (std::size_t row = 0; row < length; row += 16) {
        std::string hex;
        for (std::size_t i = row; i < row + 16 && i < length; ++i)
            hex += fmt::format("{}{:02x}", i == row ? "" : " ", bytes[i]);
        rapidjson::Value r(rapidjson::kObjectType);
        r.AddMember("offset", rapidjson::Value(fmt::format("0x{:02X}", row).c_str(), a), a);
        r.AddMember("hex", rapidjson::Value(hex.c_str(), a), a);
        rows.PushBack(r, a);
    }
    doc.AddMember("rows", rows, a);
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    doc.Accept(writer);
    return buffer.GetString();
}

}  // namespace

qsfp_passive_converter_device_handler::qsfp_passive_converter_device_handler(
    dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device, std::string root_path,
    std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map, std::string vendor, std::string part_number,
    std::string part_name, std::string description, qsfp_flags_s flags, unsigned unit,
    unsigned num_units, std::shared_ptr<qsfpd::clock> clock)
    : qsfp_device_handler(db, device, std::move(root_path), std::move(reg_map),
                          sfp_text(device, &sfp_reg_map::get_vendor_name, vendor),
                          sfp_text(device, &sfp_reg_map::get_vendor_pn, part_number),
                          sfp_text(device, &sfp_reg_map::get_vendor_pn, part_name),
                          std::move(description), flags, "converter", unit, num_units,
                          std::move(clock)),
      sfp_regs_(sfp_map_of(device_)) {
    try {
        sfp_vendor_ = trimmed(sfp_regs_->get_vendor_name());
        sfp_part_number_ = trimmed(sfp_regs_->get_vendor_pn());
        sfp_serial_ = trimmed(sfp_regs_->get_vendor_sn());
        diagnostics_ = sfp_regs_->get_diag_mon_implemented();
        sfp_present_ = true;
    } catch (const std::exception& e) {
        MSG_LOG(msg_log::error, hotplug_tag())
            << "SFP in converter not answering [" << e.what() << "] " << module_name();
    }
    generate_probe_function();
    if (sfp_present_) create_sfp_handler();
}

qsfp_passive_converter_device_handler::~qsfp_passive_converter_device_handler() = default;

// --- Catalogue and SFP+ handler -----------------------------------------------------------------

template <class Handler>
qsfpd::sfp_probe_factory qsfp_passive_converter_device_handler::factory_for() {
    return [this](const qsfpd::sfp_probe_id& entry) {
        build(std::make_shared<Handler>(db_, device_, root_, sfp_regs_, sfp_vendor_,
                                        sfp_part_number_, entry.part_name, description_,
                                        entry.flags, unit_, num_units_, clock_));
    };
}

void qsfp_passive_converter_device_handler::build(
    const std::shared_ptr<sfp_plus_device_handler>& handler) {
    inner_ = handler;
}

void qsfp_passive_converter_device_handler::generate_probe_function() {
    probe_map_ = qsfpd::load_sfp_probe_map(
        qsfpd::system_path(default_catalogue),
        [this](qsfpd::sfp_catalogue_list list) -> qsfpd::sfp_probe_factory {
            switch (list) {
                case qsfpd::sfp_catalogue_list::optical:
                    return [this](const qsfpd::sfp_probe_id& entry) {
                        MSG_LOG(msg_log::info, init_tag()) << "creating optical sfp dh";
                        factory_for<sfp_plus_optical_device_handler>()(entry);
                        MSG_LOG(msg_log::info, init_tag()) << "optical sfp created";
                    };
                case qsfpd::sfp_catalogue_list::passive:
                    return factory_for<sfp_plus_passive_device_handler>();
                case qsfpd::sfp_catalogue_list::voa:
                    return factory_for<sfp_plus_voa_device_handler>();
                case qsfpd::sfp_catalogue_list::test:
                    return factory_for<sfp_plus_test_plug_device_handler>();
            }
            return {};
        },
        module_name());
}

qsfpd::sfp_probe_map::const_iterator qsfp_passive_converter_device_handler::find_in_map(
    const qsfpd::sfp_probe_map& map, const std::string& vendor, const std::string& part_number) {
    return qsfpd::find_in_sfp_map(map, vendor, part_number);
}

void qsfp_passive_converter_device_handler::create_sfp_handler() {
    try {
        try {
            const auto entry = find_in_map(probe_map_, sfp_vendor_, sfp_part_number_);
            entry->second(entry->first);
            found_ = true;
            return;
        } catch (const std::out_of_range&) {
        }
        const std::string name = module_name();
        MSG_LOG(msg_log::warning, hotplug_tag())
            << "Unsupported SFP device at " << name << " inserted (vendor: " << sfp_vendor_
            << ", part number: " << sfp_part_number_ << ").";
        sfp_flags_s flags;
        const qsfpd::sfp_probe_id unknown{sfp_vendor_, sfp_part_number_, sfp_part_number_, flags};
        if (sfp_regs_->get_transceiver_comp__cable_technology_is_cable()) {
            MSG_LOG(msg_log::warning, hotplug_tag())
                << "Unsupported SFP device " << name << " is a cable.";
            factory_for<sfp_plus_passive_device_handler>()(unknown);
        } else {
            MSG_LOG(msg_log::warning, hotplug_tag())
                << "Unsupported SFP device " << name << " is optical.";
            auto optical = unknown;
            optical.flags.isTunable = sfp_regs_->is_tunable();
            if (sfp_regs_->get_phys_dev_id() == identifier_dwdm_sfp)
                optical.flags.wdm_type = wdm_type_dwdm;
            factory_for<sfp_plus_optical_device_handler>()(optical);
        }
        if (diagnostics_)
            MSG_LOG(msg_log::warning, hotplug_tag())
                << "Unsupported SFP device " << name << " has 0x51 (A2h) page";
        set_unsupported();
    } catch (const std::exception& e) {
        // The SFP went while we looked at it: the converter still serves its own nodes and the
        // monitoring cycle reports the missing SFP.
        inner_.reset();
        sfp_present_ = false;
        MSG_LOG(msg_log::error, hotplug_tag())
            << "SFP in converter not answering [" << e.what() << "] " << module_name();
    }
}

std::pair<std::string, std::string>
qsfp_passive_converter_device_handler::_read_revision_and_serial() {
    if (!sfp_present_) return {"", ""};
    auto lock = inner_ ? inner_->lock_module() : sfp_plus_device_handler::handler_lock();
    return {trimmed(sfp_regs_->get_vendor_rev()), trimmed(sfp_regs_->get_vendor_sn())};
}

// --- Start and monitoring -----------------------------------------------------------------------

void qsfp_passive_converter_device_handler::start() {
    using self_type = qsfp_passive_converter_device_handler;
    qsfp_device_handler::start();
    const auto self = std::static_pointer_cast<self_type>(shared_from_this());

    sfp_missing_alarm_ = group_node(status_value<int>::create(
        db_, path("alarms/sfpMissing/severity"), self, sfp_present_ ? 0 : 1));
    keep_node(const_value<bool>::create(db_, path("inventory/sfpInCatalogue"), self, found_));
    group_node(
        volatile_value<&self_type::get_tx_fault_pin>::create(db_, path("data/txFaultPin"), self));
    group_node(
        volatile_value<&self_type::get_tx_dis_pin>::create(db_, path("data/txDisablePin"), self));
    group_node(
        config_param<&self_type::set_tx_dis_pin>::create(db_, path("config/txDisablePin"), self));
    group_node(volatile_value<&self_type::get_los_pin>::create(db_, path("data/losPin"), self));
    group_node(
        volatile_value<&self_type::get_rate_sel_pin>::create(db_, path("data/rateSelPin"), self));
    group_node(
        config_param<&self_type::set_rate_sel_pin>::create(db_, path("config/rateSelPin"), self));
    group_node(volatile_value<&self_type::soft_dis_pin_advert>::create(
        db_, path("data/disPinAdvert"), self));
    group_node(volatile_value<&self_type::soft_tx_fault_advert>::create(
        db_, path("data/txFaultAdvert"), self));
    group_node(volatile_value<&self_type::soft_rate_sel_advert>::create(
        db_, path("data/rateSelAdvert"), self));
    group_node(volatile_value<&self_type::soft_los_pin_advert>::create(
        db_, path("data/losPinAdvert"), self));
    group_node(volatile_value<&self_type::get_soft_rs0>::create(db_, path("data/rs0"), self));
    group_node(config_param<&self_type::set_soft_rs0>::create(db_, path("config/rs0"), self));
    group_node(volatile_value<&self_type::get_soft_rs1>::create(db_, path("data/rs1"), self));
    group_node(config_param<&self_type::set_soft_rs1>::create(db_, path("config/rs1"), self));
    group_node(
        volatile_value<&self_type::ignore_rs1_rs2_get>::create(db_, path("data/rs12Ignore"), self));
    group_node(
        config_param<&self_type::ignore_rs1_rs2_set>::create(db_, path("config/rs12Ignore"), self));
    group_node(volatile_value<&self_type::get_max_rate_support>::create(
        db_, path("data/maxRateSupport"), self));
    group_node(volatile_value<&self_type::get_rate_id>::create(db_, path("data/rateId"), self));
    group_node(volatile_value<&self_type::get_high_rate_border_tf>::create(
        db_, path("data/borderTf"), self));
    group_node(volatile_value<&self_type::get_a0_dump>::create(db_, path("data/pageDumpA0"), self));
    if (diagnostics_) {
        // Page 00h (user EEPROM and vendor area) always; 02h only on a tunable SFP+.
        bool tunable = false;
        try {
            tunable = sfp_regs_->is_tunable();
        } catch (const std::exception&) {
        }
        for (const unsigned page : {0u, 2u}) {
            if (page == 2 && !tunable) continue;
            group_node(volatile_value<&self_type::get_a2_page_dump>::create(
                db_, path(fmt::format("data/pageDumpA2/page/{}", page)), self, page));
        }
    }
    if (inner_) inner_->start();
    activate_value_group();
    set_dh_ready(true);
}

void qsfp_passive_converter_device_handler::run_periodic_tasks() {
    auto lock = lock_handler();
    bool answers = false;
    try {
        auto sfp_lock = inner_ ? inner_->lock_module() : sfp_plus_device_handler::handler_lock();
        sfp_regs_->get_phys_dev_id();
        answers = true;
    } catch (const std::exception&) {
        // The adapter still answers the cage (the manager sees it present) but not the SFP in it.
    }
    if (!answers) return sfp_gone();
    if (!sfp_present_) sfp_back();
    if (sfp_present_ && inner_) inner_->run_periodic_tasks();
}

void qsfp_passive_converter_device_handler::sfp_gone() {
    if (!sfp_present_) return;
    sfp_present_ = false;
    replaced_logged_ = false;
    if (inner_) inner_->set_absent(true);
    MSG_LOG(msg_log::warning, hotplug_tag()) << "SFP removed from converter " << module_name();
    if (sfp_missing_alarm_) sfp_missing_alarm_->update(1);
}

void qsfp_passive_converter_device_handler::sfp_back() {
    std::string serial, vendor, part_number;
    try {
        auto sfp_lock = inner_ ? inner_->lock_module() : sfp_plus_device_handler::handler_lock();
        serial = trimmed(sfp_regs_->get_vendor_sn());
        vendor = trimmed(sfp_regs_->get_vendor_name());
        part_number = trimmed(sfp_regs_->get_vendor_pn());
    } catch (const std::exception&) {
        return;  // still settling: the next cycle looks again
    }
    if (!inner_ || serial != sfp_serial_ || vendor != sfp_vendor_ ||
        part_number != sfp_part_number_) {
        // Another module: its handler, nodes and inventory differ, so it needs a fresh handler.
        if (!std::exchange(replaced_logged_, true))
            MSG_LOG(msg_log::warning, hotplug_tag())
                << "Other SFP inserted into converter (vendor: " << vendor
                << ", part number: " << part_number << "), restart the interface to serve it "
                << module_name();
        return;
    }
    sfp_present_ = true;
    inner_->set_absent(false);
    MSG_LOG(msg_log::info, hotplug_tag()) << "SFP back in converter " << module_name();
    if (sfp_missing_alarm_) sfp_missing_alarm_->update(0);
}

// --- Forwarding ---------------------------------------------------------------------------------

void qsfp_passive_converter_device_handler::set_port_admin_status(std::string status) {
    if (inner_) return inner_->set_port_admin_status(std::move(status));
    qsfp_device_handler::set_port_admin_status(std::move(status));
}

std::string qsfp_passive_converter_device_handler::get_port_admin_status() {
    if (inner_) return inner_->get_port_admin_status();
    return qsfp_device_handler::get_port_admin_status();
}

void qsfp_passive_converter_device_handler::set_tx_enable(bool enable) {
    if (!inner_) throw dh_error(dh::errc::invalid, "No SFP in converter " + module_name());
    inner_->set_tx_enable(enable);
}

// --- Signals, rate select, pages ----------------------------------------------------------------

template <class F>
decltype(auto) qsfp_passive_converter_device_handler::sfp_access(const char* getter, F&& f) {
    auto lock = lock_handler();
    auto sfp_lock = inner_ ? inner_->lock_module() : sfp_plus_device_handler::handler_lock();
    return read_for(getter, std::forward<F>(f));
}

void qsfp_passive_converter_device_handler::require_a2h(const char* getter) {
    // Without diagnostics the SFP does not answer A2h: say so instead of a bus error.
    if (!diagnostics_)
        throw dh_error(dh::errc::invalid,
                       std::string("No A2h page on the SFP, ") + getter + " " + module_name());
}

bool qsfp_passive_converter_device_handler::get_tx_fault_pin() {
    return sfp_access("get_tx_fault_pin", [&] { return device_->sfp_tx_fault(); });
}
bool qsfp_passive_converter_device_handler::get_tx_dis_pin() {
    return sfp_access("get_tx_dis_pin", [&] { return device_->sfp_tx_disable(); });
}
void qsfp_passive_converter_device_handler::set_tx_dis_pin(bool disable) {
    sfp_access("set_tx_dis_pin", [&] { device_->sfp_set_tx_disable(disable); });
    MSG_LOG(msg_log::info, config_tag())
        << "TX disable pin " << (disable ? "set " : "cleared ") << module_name();
}
bool qsfp_passive_converter_device_handler::get_los_pin() {
    return sfp_access("get_los_pin", [&] { return device_->sfp_los(); });
}
bool qsfp_passive_converter_device_handler::get_rate_sel_pin() {
    return sfp_access("get_rate_sel_pin", [&] { return device_->sfp_rate_select(); });
}
void qsfp_passive_converter_device_handler::set_rate_sel_pin(bool high) {
    sfp_access("set_rate_sel_pin", [&] { device_->sfp_set_rate_select(high); });
}
bool qsfp_passive_converter_device_handler::soft_dis_pin_advert() {
    return sfp_access("soft_dis_pin_advert", [&] { return device_->sfp_tx_disable_implemented(); });
}
bool qsfp_passive_converter_device_handler::soft_tx_fault_advert() {
    return sfp_access("soft_tx_fault_advert", [&] { return device_->sfp_tx_fault_implemented(); });
}
bool qsfp_passive_converter_device_handler::soft_rate_sel_advert() {
    return sfp_access("soft_rate_sel_advert",
                      [&] { return device_->sfp_rate_select_implemented(); });
}
bool qsfp_passive_converter_device_handler::soft_los_pin_advert() {
    return sfp_access("soft_los_pin_advert", [&] { return device_->sfp_los_implemented(); });
}

bool qsfp_passive_converter_device_handler::get_soft_rs0() {
    require_a2h("get_soft_rs0");
    return sfp_access("get_soft_rs0", [&] { return sfp_regs_->get_rs0_state(); });
}
void qsfp_passive_converter_device_handler::set_soft_rs0(bool on) {
    require_a2h("set_soft_rs0");
    sfp_access("set_soft_rs0", [&] { sfp_regs_->set_soft_rs0_select(on); });
}
bool qsfp_passive_converter_device_handler::get_soft_rs1() {
    require_a2h("get_soft_rs1");
    return sfp_access("get_soft_rs1", [&] { return sfp_regs_->get_rs1_state(); });
}
void qsfp_passive_converter_device_handler::set_soft_rs1(bool on) {
    require_a2h("set_soft_rs1");
    sfp_access("set_soft_rs1", [&] { sfp_regs_->set_soft_rs1_select(on); });
}
bool qsfp_passive_converter_device_handler::ignore_rs1_rs2_get() {
    require_a2h("ignore_rs1_rs2_get");
    return sfp_access("ignore_rs1_rs2_get", [&] { return sfp_regs_->get_rs1_rs2_ignore(); });
}
void qsfp_passive_converter_device_handler::ignore_rs1_rs2_set(bool ignore) {
    require_a2h("ignore_rs1_rs2_set");
    sfp_access("ignore_rs1_rs2_set", [&] { sfp_regs_->set_rs1_rs2_ignore(ignore); });
}

unsigned qsfp_passive_converter_device_handler::get_max_rate_support() {
    return sfp_access("get_max_rate_support", [&]() -> unsigned {
        const unsigned nominal = sfp_regs_->get_nom_bit_rate();
        if (nominal == 0xFF) return sfp_regs_->get_nom_bit_rate_2() * 250u / 1000u;
        return nominal * 100u / 1000u;
    });
}

unsigned qsfp_passive_converter_device_handler::get_rate_id() {
    return sfp_access("get_rate_id",
                      [&]() -> unsigned { return sfp_regs_->get_rate_identifier(); });
}

std::string qsfp_passive_converter_device_handler::get_high_rate_border_tf() {
    const unsigned rate_id = get_rate_id();
    switch (rate_id) {
        case 0:
            switch (get_max_rate_support()) {
                case 9:
                case 10:
                case 11:
                    return "OC192-OC192";
                case 14:
                    return "16GFC-16GFC";
                case 25:
                    return "25GbE-25GbE";
                default:
                    return "unknown";
            }
        case 10:
        case 12:
        case 14:
            return "8GFC-8GFC";
        case 16:
            return "16GFC-16GFC";
        default:
            return "unknown";
    }
}

std::string qsfp_passive_converter_device_handler::get_a0_dump() {
    std::array<std::uint8_t, 256> bytes{};
    sfp_access("get_a0_dump", [&] { sfp_regs_->device()->read(0, 256, bytes.data()); });
    return page_dump_json("A0h", 0, "Serial ID (SFF-8472)", bytes.data(), bytes.size());
}

std::string qsfp_passive_converter_device_handler::get_a2_page_dump(unsigned page) {
    require_a2h("get_a2_page_dump");
    std::array<std::uint8_t, 256> bytes{};
    sfp_access("get_a2_page_dump", [&] {
        const auto device = sfp_regs_->device();
        const auto select = static_cast<std::uint8_t>(page);
        device->write(sfp_field::a2h_page_select, 1, &select);
        device->read(sfp_field::a2h, 256, bytes.data());
    });
    return page_dump_json(fmt::format("A2h Upper Page {:02X}h", page), page,
                          page == 2 ? "Tunable SFP+ (SFF-8690)" : "Diagnostics (SFF-8472)",
                          bytes.data(), bytes.size());
}
