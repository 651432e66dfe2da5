#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qsfpd {

// The handler classes the manager can create.
enum class handler_class {
    passive_converter,
    passive,
    optical_4lane,
    optical_1or2lane,
    optical_1lane,
    optical_1lane_pam4,
    dd_optical_4lane,
    dd_acacia_1lane,
    dd_cmis5_1lane_hpower,
};

std::string_view class_name(handler_class c);

enum class selection_warning { none, unsupported_optical, unsupported_copper };

struct handler_selection {
    handler_class handler;
    selection_warning warning = selection_warning::none;
    bool converter = false;  // the cage holds a QSFP-to-SFP converter
    // A QSFP-DD of a CMIS revision the daemon has no handler for is logged first.
    bool unsupported_cmis_revision = false;
    unsigned cmis_major = 0;

    bool operator==(const handler_selection&) const = default;
};

// What the selection reads from the module, one register access per call, in the order the
// rules need them (some are read twice on purpose).
class identification_reader {
  public:
    virtual ~identification_reader() = default;
    virtual std::uint8_t identifier() = 0;
    virtual std::uint8_t transmitter_technology() = 0;
    virtual unsigned cmis_major_revision() = 0;
    virtual bool coherent() = 0;
    virtual bool page_20_21_implemented_195() = 0;
    virtual bool page_20_21_implemented_221() = 0;
    virtual std::uint8_t link_codes() = 0;
};

// The fallback when the catalogue does not know the module: the rules, in their order.
handler_selection select_by_identification(identification_reader& module);

// Extended compliance codes (SFF-8024) of single-lane modules.
bool is_single_lane_link_code(std::uint8_t code);

}  // namespace qsfpd
