#include "handler_selection.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include "qsfp_reg_map.hpp"

namespace qsfpd {
namespace {

constexpr std::uint8_t id_sfp = 0x03;
constexpr std::uint8_t id_qsfp_dd = 0x18;

constexpr std::array<std::uint8_t, 16> single_lane_link_codes = {
    0x21, 0x25, 0x26, 0x27, 0x28, 0x29, 0x3A, 0x36, 0x2A, 0x2B, 0x2C, 0x2D, 0x2E, 0x2F, 0x34, 0x35,
};

constexpr std::array<std::pair<handler_class, std::string_view>, 9> class_names = {{
    {handler_class::passive_converter, "qsfp_passive_converter_device_handler"},
    {handler_class::passive, "qsfp_passive_device_handler"},
    {handler_class::optical_4lane, "qsfp_optical_4lane_device_handler"},
    {handler_class::optical_1or2lane, "qsfp_optical_1or2lane_device_handler"},
    {handler_class::optical_1lane, "qsfp_optical_1lane_device_handler"},
    {handler_class::optical_1lane_pam4, "qsfp_optical_1lane_pam4_device_handler"},
    {handler_class::dd_optical_4lane, "qsfp_dd_optical_4lane_device_handler"},
    {handler_class::dd_acacia_1lane, "qsfp_dd_acacia_1lane_device_handler"},
    {handler_class::dd_cmis5_1lane_hpower, "qsfp_dd_cmis5_1lane_hpower_device_handler"},
}};

// Transmitter technology 0x80 is "other"; above 0x9F are the copper cable codes (SFF-8636
// Table 6-18, upper nibble).
bool is_copper_technology(std::uint8_t technology) {
    return technology == 0x80 || technology > 0x9F;
}

// Reads a byte only SFF-8636 modules have; a CMIS module's register map answers ENOTSUP.
template <class T, class F>
T sff_only(F&& read) {
    try {
        return read();
    } catch (const std::system_error& e) {
        if (e.code().value() == ENOTSUP) return T{};
        throw;
    }
}

}  // namespace

std::string_view class_name(handler_class c) {
    for (const auto& [cls, name] : class_names)
        if (cls == c) return name;
    return "unknown handler";
}

bool is_single_lane_link_code(std::uint8_t code) {
    return std::find(single_lane_link_codes.begin(), single_lane_link_codes.end(), code) !=
           single_lane_link_codes.end();
}

handler_selection select_by_identification(identification_reader& module) {
    const std::uint8_t identifier = module.identifier();
    if (identifier == id_sfp)
        return {handler_class::passive_converter, selection_warning::none, true};
    if (is_copper_technology(module.transmitter_technology()))
        return {handler_class::passive, selection_warning::unsupported_copper};
    if (identifier == id_qsfp_dd) {
        const unsigned major = module.cmis_major_revision();
        if (major == 4)
            return {module.coherent() ? handler_class::dd_acacia_1lane
                                      : handler_class::dd_optical_4lane};
        if (major == 5)
            return {module.coherent() ? handler_class::dd_cmis5_1lane_hpower
                                      : handler_class::dd_optical_4lane};
        handler_selection s{handler_class::dd_optical_4lane};
        s.unsupported_cmis_revision = true;
        s.cmis_major = major;
        return s;
    }
    const bool pages_195 = module.page_20_21_implemented_195();
    const bool pages_221 = module.page_20_21_implemented_221();
    if (pages_195 || pages_221) return {handler_class::optical_1or2lane};

    // Read again before the last rules: a module still settling may answer differently now.
    const std::uint8_t identifier_again = module.identifier();
    const bool pages_195_again = module.page_20_21_implemented_195();
    const bool pages_221_again = module.page_20_21_implemented_221();
    if (pages_195_again || pages_221_again)
        return {handler_class::optical_1or2lane, selection_warning::unsupported_optical};
    if (identifier_again == id_qsfp_dd)
        return {handler_class::dd_acacia_1lane, selection_warning::unsupported_optical};
    if (is_single_lane_link_code(module.link_codes()))
        return {handler_class::optical_1lane, selection_warning::unsupported_optical};
    return {handler_class::optical_4lane, selection_warning::unsupported_optical};
}

std::uint8_t reg_map_identification_reader::identifier() {
    return map_.get_identifier();
}
std::uint8_t reg_map_identification_reader::transmitter_technology() {
    if (!map_.is_cmis()) return map_.get_dev_tech();
    // CMIS MediaInterfaceTechnology (page 00h byte 212) numbers the SFF-8636 transmitter
    // technologies 0h-Fh as whole bytes (0Ah-0Fh copper), then adds the tunable lasers (10h,
    // 11h) and three more copper kinds (12h-14h). Answered in the SFF-8636 byte-147 form.
    constexpr std::uint8_t copper_unequalized = 0xA0;
    const std::uint8_t technology = map_.get_media_interface_technology();
    if (technology <= 0x0F) return static_cast<std::uint8_t>(technology << 4);
    if (technology >= 0x12 && technology <= 0x14) return copper_unequalized;
    return 0x00;
}
unsigned reg_map_identification_reader::cmis_major_revision() {
    return map_.get_status_revision_compliance() >> 4;
}
bool reg_map_identification_reader::coherent() {
    return map_.is_coherent_transceiver();
}
bool reg_map_identification_reader::page_20_21_implemented_195() {
    return sff_only<bool>([&] { return map_.get_page_20_21_impl_195(); });
}
bool reg_map_identification_reader::page_20_21_implemented_221() {
    return sff_only<bool>([&] { return map_.get_page_20_21_impl_221(); });
}
std::uint8_t reg_map_identification_reader::link_codes() {
    return sff_only<std::uint8_t>([&] { return map_.get_link_codes(); });
}

handler_class handler_for_list(catalogue_list list) {
    using l = catalogue_list;
    switch (list) {
        case l::optical_4lane:
            return handler_class::optical_4lane;
        case l::optical_1or2lane:
            return handler_class::optical_1or2lane;
        case l::optical_1lane:
            return handler_class::optical_1lane;
        case l::passive:
            return handler_class::passive;
        case l::optical_dd_1lane:
            return handler_class::dd_acacia_1lane;
        case l::optical_cmis5_1lane:
            return handler_class::dd_cmis5_1lane_hpower;
        case l::optical_1lane_pam4:
            return handler_class::optical_1lane_pam4;
        case l::optical_dd_4lane:
            return handler_class::dd_optical_4lane;
    }
    return handler_class::optical_4lane;
}

}  // namespace qsfpd
