#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "transceiver_catalogue.hpp"

namespace qsfpd {

namespace cage {
class qsfp_reg_map;
}

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

// The identification reads straight from a module's register map. CMIS modules have no
// transmitter-technology, page-flag or link-code bytes: they read as absent.
class reg_map_identification_reader : public identification_reader {
  public:
    explicit reg_map_identification_reader(cage::qsfp_reg_map& map) : map_(map) {}
    std::uint8_t identifier() override;
    std::uint8_t transmitter_technology() override;
    unsigned cmis_major_revision() override;
    bool coherent() override;
    bool page_20_21_implemented_195() override;
    bool page_20_21_implemented_221() override;
    std::uint8_t link_codes() override;

  private:
    cage::qsfp_reg_map& map_;
};

// The handler class each catalogue list creates.
handler_class handler_for_list(catalogue_list list);

// The fallback when the catalogue does not know the module: the rules, in their order.
handler_selection select_by_identification(identification_reader& module);

// Extended compliance codes (SFF-8024) of single-lane modules.
bool is_single_lane_link_code(std::uint8_t code);

}  // namespace qsfpd
