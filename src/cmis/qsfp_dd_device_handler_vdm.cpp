// The VDM part of qsfp_dd_device_handler: the observable list, its getters and its nodes.

#include <fmt/format.h>

#include "qsfp_dd_device_handler.hpp"

using namespace dh::api;
namespace cmis = qsfpd::cmis;

bool qsfp_dd_device_handler::VDM_init() {
    auto lock = lock_handler();
    return read_for("VDM_init", [&] { return _VDM_init(); });
}

bool qsfp_dd_device_handler::_VDM_init() {
    if (vdm_supported_) return *vdm_supported_;
    vdm_.clear();
    // A flat-memory module has no page 01h to advertise anything.
    const std::uint8_t advertising =
        paging_ ? reg_map_->read_register(cmis::vdm_map::advertisement_address) : 0;
    if (!(advertising & cmis::vdm_map::advertisement_bit)) {
        MSG_LOG(msg_log::info, init_tag())
            << "VDM not supported! Advertising: 0x" << fmt::format("{:02X}", advertising);
        vdm_supported_ = false;
        return false;
    }
    const std::uint8_t groups = reg_map_->read_register(cmis::vdm_map::groups_address);
    MSG_LOG(msg_log::info, init_tag())
        << "VDM group support register: 0x" << fmt::format("{:02X}", groups);
    for (unsigned group = 0; group <= (groups & 0x03u); ++group) {
        std::array<std::uint8_t, qsfpd::cage::page_size> descriptors{};
        reg_map_->read_bank_register(cmis::vdm_map::descriptor_address(group), descriptors.size(),
                                     descriptors.data());
        for (const auto& text : vdm_.add_group(group, descriptors))
            MSG_LOG(msg_log::warning, init_tag()) << text << " " << module_name();
    }
    vdm_supported_ = true;
    return true;
}

void qsfp_dd_device_handler::VDM_refresh() {
    auto lock = lock_handler();
    vdm_.refresh();
}

const cmis::VDM_position& qsfp_dd_device_handler::VDM_position_of(VDM_observable_types type) const {
    const auto* position = vdm_.find(type);
    if (position == nullptr) throw dh_error(dh::errc::invalid, "Type not implemented");
    return *position;
}

double qsfp_dd_device_handler::VDM_sample(VDM_observable_types type, VDM_sample_type sample_type,
                                          double scale, cmis::VDM_format format) {
    const auto& position = VDM_position_of(type);
    const std::uint16_t raw = vdm_.read_raw(*reg_map_, position, sample_type, clock_->now());
    return cmis::VDM_read(format, raw) * scale;
}

double qsfp_dd_device_handler::_get_VDM_sample_float(VDM_observable_types type,
                                                     VDM_sample_type sample_type, double scale) {
    return VDM_sample(type, sample_type, scale, cmis::VDM_format::float16);
}

double qsfp_dd_device_handler::_get_VDM_sample_int(VDM_observable_types type,
                                                   VDM_sample_type sample_type, double scale) {
    return VDM_sample(type, sample_type, scale, cmis::VDM_format::signed16);
}

double qsfp_dd_device_handler::_get_VDM_sample_unsigned(VDM_observable_types type,
                                                        VDM_sample_type sample_type, double scale) {
    return VDM_sample(type, sample_type, scale, cmis::VDM_format::unsigned16);
}

unsigned qsfp_dd_device_handler::_get_VDM_flags(VDM_observable_types type) {
    const unsigned p = VDM_position_of(type).index;
    return cmis::vdm_map::flag_nibble(p, vdm_.read_flag_byte(*reg_map_, p, clock_->now()));
}

unsigned qsfp_dd_device_handler::_get_VDM_mask(VDM_observable_types type) {
    // Read where set_VDM_mask writes, with the flags' nibble rule.
    const unsigned p = VDM_position_of(type).index;
    return cmis::vdm_map::flag_nibble(p, reg_map_->read_register(cmis::vdm_map::flag_address(p)));
}

double qsfp_dd_device_handler::get_VDM_sample_float(VDM_observable_types type,
                                                    VDM_sample_type sample_type, double scale) {
    auto lock = lock_handler();
    return read_for("get_VDM_sample_float",
                    [&] { return _get_VDM_sample_float(type, sample_type, scale); });
}

double qsfp_dd_device_handler::get_VDM_sample_int(VDM_observable_types type,
                                                  VDM_sample_type sample_type, double scale) {
    auto lock = lock_handler();
    return read_for("get_VDM_sample_int",
                    [&] { return _get_VDM_sample_int(type, sample_type, scale); });
}

double qsfp_dd_device_handler::get_VDM_sample_unsigned(VDM_observable_types type,
                                                       VDM_sample_type sample_type, double scale) {
    auto lock = lock_handler();
    return read_for("get_VDM_sample_unsigned",
                    [&] { return _get_VDM_sample_unsigned(type, sample_type, scale); });
}

unsigned qsfp_dd_device_handler::get_VDM_flags(VDM_observable_types type) {
    auto lock = lock_handler();
    return read_for("get_VDM_flags", [&] { return _get_VDM_flags(type); });
}

unsigned qsfp_dd_device_handler::get_VDM_mask(VDM_observable_types type) {
    auto lock = lock_handler();
    return read_for("get_VDM_mask", [&] { return _get_VDM_mask(type); });
}

void qsfp_dd_device_handler::set_VDM_mask(VDM_observable_types type, unsigned value) {
    auto lock = lock_handler();
    const unsigned p = VDM_position_of(type).index;
    module_access([&] {
        reg_map_->write_register(cmis::vdm_map::flag_address(p), static_cast<std::uint8_t>(value),
                                 cmis::vdm_map::mask_bits(p));
    });
}

std::size_t qsfp_dd_device_handler::register_VDM_nodes(std::span<const cmis::vdm_observable> rows) {
    using self_type = qsfp_dd_device_handler;
    if (!VDM_init()) return 0;
    const auto self = std::static_pointer_cast<self_type>(shared_from_this());
    static constexpr std::array<std::pair<const char*, VDM_sample_type>, 5> values{{
        {"", VDM_sample_type::sample},
        {"/highAlarm", VDM_sample_type::high_alarm},
        {"/lowAlarm", VDM_sample_type::low_alarm},
        {"/highWarning", VDM_sample_type::high_warning},
        {"/lowWarning", VDM_sample_type::low_warning},
    }};
    std::size_t published = 0;
    for (const auto& row : rows) {
        {
            auto lock = lock_handler();
            if (vdm_.find(row.type) == nullptr) continue;
        }
        const std::string name = "data/" + std::string(row.node);
        for (const auto& [suffix, which] : values) {
            const std::string at = path(name + suffix);
            switch (row.format) {
                case cmis::VDM_format::float16:
                    group_node(volatile_value<&self_type::get_VDM_sample_float>::create(
                        db_, at, self, row.type, which, row.scale));
                    break;
                case cmis::VDM_format::signed16:
                    group_node(volatile_value<&self_type::get_VDM_sample_int>::create(
                        db_, at, self, row.type, which, row.scale));
                    break;
                case cmis::VDM_format::unsigned16:
                    group_node(volatile_value<&self_type::get_VDM_sample_unsigned>::create(
                        db_, at, self, row.type, which, row.scale));
                    break;
            }
        }
        group_node(volatile_value<&self_type::get_VDM_flags>::create(db_, path(name + "/flag"),
                                                                     self, row.type));
        ++published;
    }
    return published;
}
