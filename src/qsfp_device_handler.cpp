#include "qsfp_device_handler.hpp"

#include <tuple>

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <fmt/format.h>

#include "device_handler_client.hpp"
#include "json_parse.hpp"
#include "msg_log.hpp"
#include "system_path.hpp"

using namespace dh::api;
using qsfpd::cage::flat;
using qsfpd::cage::page_size;

namespace {

constexpr auto gearbox_server = "/tmp/device_handlers/bcm_gb";
constexpr auto gearbox_oper_status = "data/operStatus";
constexpr auto gearbox_poll_period = std::chrono::seconds(1);
// While the gearbox handler is not up the wait is reported on its first poll and then once a
// minute: enough to see why a cage hangs without one line per second in the log.
constexpr unsigned gearbox_wait_log_every = 60;

constexpr unsigned dump_row_bytes = 16;
constexpr unsigned lower_page_number = 0;
constexpr unsigned max_byte_value = 0xFF;
constexpr unsigned max_page_number = 0xFF;
// Upper memory ends at page FFh byte 255.
constexpr unsigned max_flat_address = qsfpd::cage::flat_end - 1;
// SFF-8636 and CMIS: byte 127 of the lower page selects the upper page.
constexpr qsfpd::cage::flat_address page_select_byte = 127;

constexpr auto lower_page_name = "Lower Page";
constexpr auto lower_page_description =
    "Identifier, status, interrupt flags, free side monitors and control";

// SFF-8636 upper pages with what they hold: 00h identification, 01h the application select
// table, 02h user EEPROM, 03h thresholds/masks/channel control, 20h-21h PAM-4 and WDM monitors.
struct base_page {
    unsigned page;
    const char* description;
};
constexpr std::array<base_page, 6> sff8636_pages = {{
    {0x00, "Identification information"},
    {0x01, "Application Select Table"},
    {0x02, "User-Writable EEPROM"},
    {0x03, "Thresholds, Masks, Ability registers and Channel Control"},
    {0x20, "PAM-4 and WDM Features"},
    {0x21, "PAM-4 and WDM Features"},
}};

std::string join(const std::string& root, std::string_view relative) {
    if (root.empty()) return std::string(relative);
    return root + "/" + std::string(relative);
}

std::string page_name(unsigned page) {
    return fmt::format("Upper Page {:02X}h", page);
}

std::string write_json(const rapidjson::Value& value) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    value.Accept(writer);
    return std::string(buffer.GetString(), buffer.GetSize());
}

// One page in the dump layout: name, bank, number, description and 16-byte rows of hex.
rapidjson::Value page_json(const std::string& name, unsigned bank, unsigned page,
                           const std::string& description, std::span<const std::uint8_t> bytes,
                           unsigned first_offset, rapidjson::Document::AllocatorType& allocator) {
    rapidjson::Value out(rapidjson::kObjectType);
    out.AddMember("page", rapidjson::Value(name, allocator), allocator);
    out.AddMember("bank", bank, allocator);
    out.AddMember("pageNumber", page, allocator);
    out.AddMember("description", rapidjson::Value(description, allocator), allocator);
    rapidjson::Value rows(rapidjson::kArrayType);
    for (std::size_t at = 0; at < bytes.size(); at += dump_row_bytes) {
        std::string hex;
        for (std::size_t i = at; i < std::min<std::size_t>(at + dump_row_bytes, bytes.size());
             ++i) {
            if (!hex.empty()) hex += ' ';
            hex += fmt::format("{:02x}", bytes[i]);
        }
        rapidjson::Value row(rapidjson::kObjectType);
        row.AddMember("offset",
                      rapidjson::Value(fmt::format("0x{:02X}", first_offset + at), allocator),
                      allocator);
        row.AddMember("hex", rapidjson::Value(hex, allocator), allocator);
        rows.PushBack(row, allocator);
    }
    out.AddMember("rows", rows, allocator);
    return out;
}

}  // namespace

std::string_view identifier_name(unsigned identifier) {
    if (identifier < sff8024_identifier_names.size()) return sff8024_identifier_names[identifier];
    return unknown_module_type_name;
}

qsfp_device_handler::qsfp_device_handler(
    dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device, std::string root_path,
    std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map, std::string vendor, std::string part_number,
    std::string part_name, std::string description, qsfp_flags_s flags, std::string data_model,
    unsigned unit, unsigned num_units, std::shared_ptr<qsfpd::clock> clock)
    : db_(db),
      device_(std::move(device)),
      root_(std::move(root_path)),
      module_name_(device_->path()),
      reg_map_(std::move(reg_map)),
      vendor_(std::move(vendor)),
      part_number_(std::move(part_number)),
      part_name_(std::move(part_name)),
      description_(std::move(description)),
      flags_(flags),
      data_model_(std::move(data_model)),
      unit_(unit),
      num_units_(num_units),
      clock_(clock ? std::move(clock) : qsfpd::clock::system()),
      fec_default_(flags.isFec) {
    // shared_from_this is not available yet; constant and status nodes do not use their owner.
    const std::shared_ptr<qsfp_device_handler> no_owner;
    data_model_node_ =
        const_value<std::string>::create(db_, join(root_, "dataModel"), no_owner, data_model_);
    vendor_node_ =
        const_value<std::string>::create(db_, join(root_, "inventory/vendor"), no_owner, vendor_);
    part_number_node_ = const_value<std::string>::create(db_, join(root_, "inventory/partNumber"),
                                                         no_owner, part_number_);
    part_name_node_ = const_value<std::string>::create(db_, join(root_, "inventory/partName"),
                                                       no_owner, part_name_);
    description_node_ = const_value<std::string>::create(db_, join(root_, "inventory/description"),
                                                         no_owner, description_);
    identifier_node_ = const_value<unsigned>::create(db_, join(root_, "inventory/identifier"),
                                                     no_owner, reg_map_->get_identifier());
    is_qsfp_dd_node_ = const_value<bool>::create(db_, join(root_, "inventory/IsQsfpDD"), no_owner,
                                                 reg_map_->is_cmis());
    dh_ready_node_ = status_value<bool>::create(db_, join(root_, "data/dhReady"), no_owner, false);
    unsupported_node_ =
        status_value<int>::create(db_, join(root_, "alarms/unsupported/severity"), no_owner, 0);
    config_status_node_ =
        status_value<bool>::create(db_, join(root_, "data/configStatus"), no_owner, false);

    link_platform();
}

qsfp_device_handler::~qsfp_device_handler() = default;

void qsfp_device_handler::link_platform() {
    const std::string tag = init_tag();
    if (qsfpd::cage::qsfp_device::is_qsfp_zelt20()) {
        gearbox_client_ =
            std::make_shared<device_handler_client>(qsfpd::system_path(gearbox_server));
        device_handler_read_object<std::string> oper_status(gearbox_client_, gearbox_oper_status);
        for (unsigned polls = 0;; ++polls) {
            clock_->sleep_for(gearbox_poll_period);
            try {
                if (oper_status.read() == "up") break;
            } catch (const std::exception&) {
                // The gearbox handler is not serving yet: keep waiting.
            }
            if (polls % gearbox_wait_log_every == 0)
                MSG_LOG(msg_log::info, tag)
                    << "Waiting for bcm_gb handler to come up, " << module_name();
        }
        MSG_LOG(msg_log::info, tag) << "QSFP ZELT-20 detected " << module_name();
        MSG_LOG(msg_log::info, tag) << "QSFP: Gearbox handler is up for " << module_name();
    } else if (qsfpd::cage::qsfp_device::is_qsfp_zelt30()) {
        MSG_LOG(msg_log::info, tag) << "QSFP ZELT-30 detected, " << module_name();
    } else if (qsfpd::cage::qsfp_device::is_qsfp_zelt40()) {
        MSG_LOG(msg_log::info, tag) << "QSFP ZELT-40 detected, " << module_name();
    } else if (qsfpd::cage::qsfp_device::is_qsfp_zelt50()) {
        MSG_LOG(msg_log::info, tag) << "QSFP ZELT-50 detected, " << module_name();
    }
}

void qsfp_device_handler::start() {
    using self_type = qsfp_device_handler;
    const auto self = shared_from_this();
    auto keep = [this](auto node) {
        start_nodes_.push_back(node);
        return node;
    };
    auto path = [this](std::string_view relative) { return join(root_, relative); };

    keep(const_value<bool>::create(db_, path("param/fecDefault"), self, fec_default_));
    keep(const_value<std::string>::create(db_, path("inventory/typeOfModuleInSlot"), self,
                                          get_type_of_module_in_slot()));
    std::string revision;
    std::string serial;
    {
        auto lock = lock_handler();
        module_access([&] { std::tie(revision, serial) = _read_revision_and_serial(); });
    }
    keep(const_value<std::string>::create(db_, path("inventory/hwRevision"), self, revision));
    keep(const_value<std::string>::create(db_, path("inventory/serialNumber"), self, serial));
    keep(const_value<int>::create(db_, path("data/capability"), self, capability_));

    {
        auto lock = lock_handler();
        clear_page_advertisement();
        if (module_access([&] { return reg_map_->is_cmis(); })) {
            // CMIS handlers advertise their own pages; the base knows only page 00h there.
            add_page_advertisement(sff8636_pages[0].page, 0, sff8636_pages[0].description);
        } else {
            for (const auto& p : sff8636_pages)
                add_page_advertisement(p.page, 0, p.description);
        }
    }

    value_group_ = std::make_unique<value_group>(std::chrono::milliseconds(1000), unit_, num_units_,
                                                 clock_, false);
    int index = 0;
    auto grouped = [&](auto node) {
        value_group_->add_value(node, index++);
        return keep(node);
    };
    const min_max_range_t<unsigned> byte_range{0, max_byte_value};

    grouped(volatile_value<&self_type::get_lower_page_dump>::create(
        db_, path("data/pageDump/lowerPage"), self));
    grouped(volatile_value<&self_type::get_banked_page_dump>::create(
        db_, path("data/pageDump/upperBankedPage"), self));
    eeprom_page_node_ = grouped(config_param<&self_type::set_eeprom_page>::create(
        db_, path("config/pageDump/currentUpperPageNumber"), self,
        min_max_range_t<unsigned>{0, max_page_number}, 0u));
    eeprom_page_node_->set_value(eeprom_page_);
    eeprom_bank_node_ = grouped(config_param<&self_type::set_eeprom_bank>::create(
        db_, path("config/pageDump/currentUpperBankNumber"), self, byte_range, 0u));
    eeprom_bank_node_->set_value(eeprom_bank_);
    grouped(volatile_value<&self_type::get_eeprom_page_list>::create(
        db_, path("data/pageDump/upperPage/activePages"), self));
    grouped(volatile_value<&self_type::get_page_advertisement>::create(
        db_, path("data/pageDump/advertised"), self));
    dh_ready_config_node_ =
        grouped(config_param<&self_type::set_dh_ready>::create(db_, path("config/dhReady"), self));
    dh_ready_config_node_->set_value(get_dh_ready());
    grouped(volatile_value<&self_type::get_reg_address>::create(db_, path("data/debug/reg/address"),
                                                                self));
    grouped(config_param<&self_type::set_reg_address>::create(
                db_, path("config/debug/reg/address"), self,
                min_max_range_t<unsigned>{0, max_flat_address}, 0u))
        ->set_value(reg_address_);
    grouped(
        volatile_value<&self_type::get_reg_mask>::create(db_, path("data/debug/reg/mask"), self));
    grouped(config_param<&self_type::set_reg_mask>::create(db_, path("config/debug/reg/mask"), self,
                                                           byte_range, 0u))
        ->set_value(reg_mask_);
    grouped(volatile_value<&self_type::get_reg_wr_data>::create(db_, path("data/debug/reg/wr_data"),
                                                                self));
    grouped(config_param<&self_type::set_reg_wr_data>::create(db_, path("config/debug/reg/wr_data"),
                                                              self, byte_range, 0u))
        ->set_value(reg_wr_data_);
    grouped(volatile_value<&self_type::get_reg_rd_data>::create(db_, path("data/debug/reg/rd_data"),
                                                                self));
}

std::pair<std::string, std::string> qsfp_device_handler::_read_revision_and_serial() {
    return {reg_map_->get_revision(), reg_map_->get_serial_number()};
}

void qsfp_device_handler::add_to_value_group(const std::shared_ptr<dh_db_leaf_node>& node) {
    value_group_->add_value(node, static_cast<int>(value_group_->size()));
}

void qsfp_device_handler::activate_value_group() {
    value_group_->activate();
}

std::string qsfp_device_handler::path(std::string_view relative) const {
    return join(root_, relative);
}

bool qsfp_device_handler::get_dh_ready() {
    auto lock = lock_handler();
    return dh_ready_node_->last_value().value_or(false);
}

void qsfp_device_handler::set_dh_ready(bool ready) {
    auto lock = lock_handler();
    MSG_LOG(msg_log::info, init_tag()) << "Setting dh ready";
    dh_ready_node_->update(ready);
    // The configuration node shows the readiness however it was set.
    if (dh_ready_config_node_) dh_ready_config_node_->set_value(ready);
}

void qsfp_device_handler::set_unsupported() {
    auto lock = lock_handler();
    // Once raised it stays raised for the handler's life; a repeat sends no event.
    if (unsupported_node_->last_value() != 1) unsupported_node_->update(1);
}

std::string qsfp_device_handler::get_type_of_module_in_slot() {
    auto lock = lock_handler();
    const unsigned identifier = module_access([&] { return reg_map_->get_identifier(); });
    return std::string(identifier_name(identifier));
}

std::string qsfp_device_handler::get_capability() const {
    return std::to_string(capability_);
}

void qsfp_device_handler::set_port_admin_status(std::string status) {
    auto lock = lock_handler();
    const std::string tag = config_tag();
    if (status != "up" && status != "down") {
        const std::string text = "Illegal parameter admin status: " + status + " ";
        MSG_LOG(msg_log::warning, tag) << text;
        throw dh_error(dh::errc::invalid, text);
    }
    const bool up = status == "up";
    if (admin_applied_ && admin_up_ == up) {
        MSG_LOG(msg_log::info, tag)
            << "Setting adminstatus " << status << " but adminstatus is already " << status
            << ", do nothing. " << module_name();
        return;
    }
    MSG_LOG(msg_log::info, tag) << "Setting adminstatus " << status << " " << module_name();
    _set_port_admin_status(up);
    admin_up_ = up;
    admin_applied_ = true;
}

std::string qsfp_device_handler::get_port_admin_status() {
    auto lock = lock_handler();
    return admin_up_ ? "up" : "down";
}

void qsfp_device_handler::set_reg_address(unsigned address) {
    auto lock = lock_handler();
    reg_address_ = address;
}

void qsfp_device_handler::set_reg_mask(unsigned mask) {
    auto lock = lock_handler();
    reg_mask_ = mask;
}

void qsfp_device_handler::set_reg_wr_data(unsigned data) {
    auto lock = lock_handler();
    reg_wr_data_ = data;
    module_access([&] {
        reg_map_->write_register(reg_address_, static_cast<std::uint8_t>(data),
                                 static_cast<std::uint8_t>(reg_mask_));
    });
}

unsigned qsfp_device_handler::get_reg_address() {
    auto lock = lock_handler();
    return reg_address_;
}

unsigned qsfp_device_handler::get_reg_mask() {
    auto lock = lock_handler();
    return reg_mask_;
}

unsigned qsfp_device_handler::get_reg_wr_data() {
    auto lock = lock_handler();
    return reg_wr_data_;
}

unsigned qsfp_device_handler::get_reg_rd_data() {
    auto lock = lock_handler();
    const std::uint8_t value = module_access([&] { return reg_map_->read_register(reg_address_); });
    if (reg_address_ < page_size) lower_bytes_read(reg_address_, std::span(&value, 1));
    return value;
}

void qsfp_device_handler::_check_bank(unsigned bank) {
    // A bank the module lacks would make every later dump fail; refuse it when it is chosen.
    const unsigned banks = module_access([&] { return _banks_supported(); });
    if (bank < banks) return;
    throw dh_error(
        dh::errc::invalid,
        banks == 1
            ? fmt::format("Bank {} not supported: the module has bank 0 only", bank)
            : fmt::format("Bank {} not supported: the module has banks 0 to {}", bank, banks - 1));
}

unsigned qsfp_device_handler::_banks_supported() {
    return reg_map_->is_cmis() ? reg_map_->get_banks_supported() : 1;
}

void qsfp_device_handler::set_eeprom_bank(unsigned bank) {
    auto lock = lock_handler();
    _check_bank(bank);
    eeprom_bank_ = bank;
}

void qsfp_device_handler::set_eeprom_page(unsigned page) {
    auto lock = lock_handler();
    eeprom_page_ = page;
}

void qsfp_device_handler::set_eeprom_bank_and_page(const std::string& json_document) {
    rapidjson::Document doc;
    const auto parsed = qsfpd::parse_json(json_document.c_str(), json_document.size(), doc);
    auto refuse = [] {
        return dh_error(dh::errc::invalid, "Expected {\"bank\": <0-255>, \"page\": <0-255>}");
    };
    if (!parsed || !doc.IsObject()) throw refuse();
    auto member = [&](const char* name) -> std::optional<unsigned> {
        const auto it = doc.FindMember(name);
        if (it == doc.MemberEnd()) return std::nullopt;
        if (!it->value.IsUint() || it->value.GetUint() > max_byte_value) throw refuse();
        return it->value.GetUint();
    };
    const auto bank = member("bank");
    const auto page = member("page");
    auto lock = lock_handler();
    if (bank) _check_bank(*bank);
    if (bank) eeprom_bank_ = *bank;
    if (page) eeprom_page_ = *page;
    // Keep the published selection in step with the one the dump uses.
    if (bank && eeprom_bank_node_) eeprom_bank_node_->set_value(*bank);
    if (page && eeprom_page_node_) eeprom_page_node_->set_value(*page);
}

void qsfp_device_handler::clear_page_advertisement() {
    auto lock = lock_handler();
    advertised_.clear();
}

void qsfp_device_handler::add_page_advertisement(unsigned page, unsigned bank,
                                                 std::string description, std::string banks) {
    auto lock = lock_handler();
    advertised_.push_back({page, bank, std::move(description), std::move(banks)});
}

std::optional<qsfp_device_handler::page_advertisement> qsfp_device_handler::find_advertisement(
    unsigned page, unsigned bank) const {
    for (const auto& a : advertised_)
        if (a.page == page && a.bank == bank) return a;
    return std::nullopt;
}

std::string qsfp_device_handler::get_page_advertisement() {
    auto lock = lock_handler();
    rapidjson::Document doc(rapidjson::kObjectType);
    auto& allocator = doc.GetAllocator();
    rapidjson::Value pages(rapidjson::kArrayType);
    for (const auto& a : advertised_) {
        rapidjson::Value entry(rapidjson::kObjectType);
        entry.AddMember("page", rapidjson::Value(page_name(a.page), allocator), allocator);
        entry.AddMember("bank", a.bank, allocator);
        entry.AddMember("pageNumber", a.page, allocator);
        entry.AddMember("description", rapidjson::Value(a.description, allocator), allocator);
        if (!a.banks.empty())
            entry.AddMember("banks", rapidjson::Value(a.banks, allocator), allocator);
        pages.PushBack(entry, allocator);
    }
    doc.AddMember("pages", pages, allocator);
    return write_json(doc);
}

bool qsfp_device_handler::_page_implemented(unsigned page, unsigned bank) {
    if (page == 0 && bank == 0) return true;
    if (!reg_map_->get_support_paging()) return false;
    if (reg_map_->is_cmis()) return bank == 0 || page >= 0x10;
    if (bank != 0) return false;
    switch (page) {
        case 0x01:
            return reg_map_->get_page_01_provided();
        case 0x02:
            return reg_map_->get_page_02_provided();
        case 0x03:
            return true;  // every paged SFF-8636 module has page 03h
        case 0x20:
        case 0x21:
            return reg_map_->get_page_20_21_impl_195() || reg_map_->get_page_20_21_impl_221();
        default:
            return false;
    }
}

std::array<std::uint8_t, page_size> qsfp_device_handler::_read_page(unsigned bank, unsigned page,
                                                                    bool lower) {
    std::array<std::uint8_t, page_size> bytes{};
    module_access([&] {
        if (lower) {
            device_->i2c_read(0, bytes);
            lower_bytes_read(0, bytes);
            return;
        }
        device_->i2c_read_bank(static_cast<std::uint8_t>(bank),
                               flat(static_cast<std::uint8_t>(page), page_size), bytes);
        // A module refuses a page it lacks by keeping the old one selected: what we read would
        // be another page under this one's name.
        const auto selected = device_->read_byte(page_select_byte);
        if (page != 0 && selected != page) {
            device_->invalidate_cache();
            throw dh_error(dh::errc::invalid,
                           fmt::format("Page {:02X}h is not implemented by the module", page));
        }
    });
    return bytes;
}

std::string qsfp_device_handler::_get_page_dump(unsigned bank, unsigned page,
                                                const std::string& name,
                                                const std::string& description) {
    const bool lower = name == lower_page_name;
    const auto bytes = _read_page(bank, page, lower);
    rapidjson::Document doc;
    const auto value =
        page_json(name, bank, page, description, bytes, lower ? 0 : page_size, doc.GetAllocator());
    return write_json(value);
}

std::string qsfp_device_handler::get_page_dump(unsigned int page, std::string name) {
    auto lock = lock_handler();
    const auto advertised = find_advertisement(page, 0);
    return _get_page_dump(0, page, name, advertised ? advertised->description : "");
}

std::string qsfp_device_handler::get_lower_page_dump() {
    auto lock = lock_handler();
    return _get_page_dump(0, lower_page_number, lower_page_name, lower_page_description);
}

std::string qsfp_device_handler::get_banked_page_dump() {
    auto lock = lock_handler();
    const auto advertised = find_advertisement(eeprom_page_, eeprom_bank_);
    return _get_page_dump(eeprom_bank_, eeprom_page_, page_name(eeprom_page_),
                          advertised ? advertised->description : "");
}

std::string qsfp_device_handler::get_eeprom_page_list() {
    auto lock = lock_handler();
    rapidjson::Document doc(rapidjson::kObjectType);
    auto& allocator = doc.GetAllocator();
    rapidjson::Value pages(rapidjson::kArrayType);
    for (const auto& a : advertised_) {
        if (!module_access([&] { return _page_implemented(a.page, a.bank); })) continue;
        const auto bytes = _read_page(a.bank, a.page, false);
        pages.PushBack(page_json(page_name(a.page), a.bank, a.page, a.description, bytes, page_size,
                                 allocator),
                       allocator);
    }
    doc.AddMember("pages", pages, allocator);
    return write_json(doc);
}

void qsfp_device_handler::log_module_failure(const std::exception& e, bool unplugged) const {
    if (unplugged)
        MSG_LOG(msg_log::error, module_name()) << "Module unplugged " << module_name();
    else
        MSG_LOG(msg_log::error, module_name()) << "Exception " << e.what() << " " << module_name();
}
