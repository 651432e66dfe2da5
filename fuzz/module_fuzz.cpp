// A module's memory, whatever it holds: the input is the flat image of the module behind the
// cage (lower page, then upper pages, as the module dumps lay it out; for an SFP identifier, A0h
// then A2h of the SFP behind a converter). The manager's identification runs on it (catalogue,
// then the selection rules), the handler class it picks is built and started, runs a few
// monitoring cycles in virtual time, and every node it publishes is read, page dumps included.
#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <system_error>

#include "converter_sfp_device.hpp"
#include "dh_db.hpp"
#include "dh_error.hpp"
#include "fake_transport.hpp"
#include "fuzz_support.hpp"
#include "handler_selection.hpp"
#include "qsfp_device.hpp"
#include "qsfp_device_handler.hpp"
#include "qsfp_optical_1lane_device_handler.hpp"
#include "qsfp_optical_1lane_pam4_device_handler.hpp"
#include "qsfp_optical_1or2lane_device_handler.hpp"
#include "qsfp_optical_4lane_device_handler.hpp"
#include "qsfp_passive_converter_device_handler.hpp"
#include "qsfp_reg_map.hpp"
#include "sfp_reg_map.hpp"
#include "transceiver_catalogue.hpp"
#include "virtual_clock.hpp"

namespace {

using namespace std::chrono_literals;
using qsfpd::handler_class;

// What the catalogue says of a module it lists.
struct catalogue_hit {
    handler_class cls;
    std::string description;
    qsfp_flags_s flags;
};

// The repository's catalogue, loaded once; each entry's factory reports its class.
const qsfpd::probe_map& catalogue(std::optional<catalogue_hit>& hit) {
    static std::optional<catalogue_hit>* current = nullptr;
    static const qsfpd::probe_map map = qsfpd::load_probe_map(
        QSFPD_SOURCE_DIR "/etc/transceiver_qsfp.json",
        [](qsfpd::catalogue_list list) -> qsfpd::probe_factory {
            return [cls = qsfpd::handler_for_list(list)](const std::string&, const std::string&,
                                                         const std::string& description,
                                                         const qsfp_flags_s& flags) {
                *current = catalogue_hit{cls, description, flags};
            };
        },
        "fuzz");
    current = &hit;
    return map;
}

template <class Handler>
std::shared_ptr<qsfp_device_handler> make(dh_db& db,
                                          const std::shared_ptr<qsfpd::cage::qsfp_device>& device,
                                          const std::string& vendor, const std::string& part,
                                          const std::string& description, const qsfp_flags_s& flags,
                                          const std::shared_ptr<qsfpd::clock>& clock) {
    auto handler = std::make_shared<Handler>(db, device, "",
                                             std::make_shared<qsfpd::cage::qsfp_reg_map>(*device),
                                             vendor, part, part, description, flags, 3, 8, clock);
    handler->start();
    return handler;
}

// The handler classes the manager's default factories build; others have none yet.
std::shared_ptr<qsfp_device_handler> build(handler_class cls, dh_db& db,
                                           const std::shared_ptr<qsfpd::cage::qsfp_device>& device,
                                           const std::string& vendor, const std::string& part,
                                           const std::string& description,
                                           const qsfp_flags_s& flags,
                                           const std::shared_ptr<qsfpd::clock>& clock) {
    switch (cls) {
        case handler_class::optical_4lane:
            return make<qsfp_optical_4lane_device_handler>(db, device, vendor, part, description,
                                                           flags, clock);
        case handler_class::optical_1or2lane:
            return make<qsfp_optical_1or2lane_device_handler>(db, device, vendor, part, description,
                                                              flags, clock);
        case handler_class::optical_1lane:
            return make<qsfp_optical_1lane_device_handler>(db, device, vendor, part, description,
                                                           flags, clock);
        case handler_class::optical_1lane_pam4:
            return make<qsfp_optical_1lane_pam4_device_handler>(db, device, vendor, part,
                                                                description, flags, clock);
        case handler_class::passive_converter:
            // No SFP catalogue under the isolated root: the SFP takes the unsupported path and
            // gets the optical or passive SFP+ handler its memory asks for.
            return make<qsfp_passive_converter_device_handler>(db, device, vendor, part,
                                                               description, flags, clock);
        default:
            return nullptr;
    }
}

// Every readable node, as a client's get reads it: a refused read is an answer, not a fault.
void read_every_node(dh_db& db) {
    for (const auto& entry : db.list("")) {
        if (!entry.node->readable()) continue;
        try {
            entry.node->get_text(entry.path);
        } catch (const dh_error&) {
        } catch (const std::exception&) {
        }
    }
}

// The SFP of a converter through the SFF-8472 register map.
void decode_sfp(const std::shared_ptr<qsfpd::cage::qsfp_device>& device) {
    sfp_reg_map sfp(std::make_shared<qsfpd::cage::converter_sfp_device>(device));
    sfp.get_vendor_name();
    sfp.get_vendor_pn();
    sfp.get_vendor_rev();
    sfp.get_vendor_sn();
    sfp.get_vendor_oui();
    sfp.get_wavelength(true);
    sfp.get_wavelength(false);
    sfp.get_phys_dev_id();
    sfp.get_nom_bit_rate();
    sfp.get_nom_bit_rate_2();
    sfp.get_diag_mon_type();
    sfp.get_transceiver_comp__10g_base_lr();
    sfp.get_transceiver_comp__cable_technology_is_cable();
    sfp.get_temp();
    sfp.get_vcc();
    sfp.get_tx_bias();
    sfp.get_tx_power();
    sfp.get_rx_power();
    sfp.get_temp_high_alarm_th();
    sfp.get_rx_power_low_warn_th();
    if (sfp.is_tunable()) {
        sfp.get_first_freq_thz_msb();
        sfp.get_grid_space_ghz10_lsb();
        sfp.get_channel_number_lsb();
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    qsfpd::fuzz::discard_logs();
    qsfpd::fuzz::isolate_system_paths();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    namespace cage = qsfpd::cage;
    const std::span<const std::uint8_t> input(data, std::min<std::size_t>(size, cage::flat_end));
    auto transport = std::make_shared<qsfpd::test::fake_transport>();
    const bool sfp = !input.empty() && input[0] == 0x03;
    if (sfp)
        transport->set_sfp(input);  // A0h, then A2h from byte 256
    else
        transport->load_flat(input);

    // Declared first so that it outlives every thread that sleeps on it.
    auto clock = std::make_shared<qsfpd::virtual_clock>();
    auto device = std::make_shared<cage::qsfp_device>("qsfp3", transport);
    cage::qsfp_reg_map reg_map(*device);
    dh_db db;
    std::shared_ptr<qsfp_device_handler> handler;
    try {
        // The manager's identification: vendor and part number against the catalogue, the
        // selection rules for a module the catalogue does not list.
        const auto vendor = qsfpd::trim_and_upper_case(reg_map.get_vendor_name());
        const auto part = qsfpd::trim_and_upper_case(reg_map.get_part_number());
        std::optional<catalogue_hit> hit;
        const auto& map = catalogue(hit);
        try {
            qsfpd::find_in_map(map, vendor, part)->second(vendor, part, {}, {});
        } catch (const std::out_of_range&) {
        }
        handler_class cls;
        bool converter = false;
        if (hit) {
            cls = hit->cls;
        } else {
            reg_map.forget_identity();
            qsfpd::reg_map_identification_reader reader(reg_map);
            const auto selection = qsfpd::select_by_identification(reader);
            cls = selection.handler;
            converter = selection.converter;
        }
        if (converter) {
            device->set_converter_flag(true);
            decode_sfp(device);
        }
        handler = build(cls, db, device, vendor, part, hit ? hit->description : "Unknown",
                        hit ? hit->flags : qsfp_flags_s{}, clock);
        if (!handler) return 0;
        if (!hit && !converter) handler->set_unsupported();
        handler->set_port_admin_status("up");
    } catch (const std::exception&) {
        // A refused read or a handler that would not start: the manager logs the failed pass
        // and tries again on the next one.
        return 0;
    }

    for (int cycle = 0; cycle < 3; ++cycle) {
        clock->advance(100ms);
        try {
            handler->run_periodic_tasks();
        } catch (const std::exception&) {
            // A failed monitoring cycle: the manager logs it and runs the next one.
        }
    }
    read_every_node(db);
    for (unsigned page : {0x00u, 0x01u, 0x02u, 0x03u, 0x10u, 0x11u, 0x20u, 0x21u}) {
        try {
            handler->set_eeprom_page(page);
            handler->get_banked_page_dump();
            handler->get_page_dump(page, "page");
        } catch (const std::exception&) {
        }
    }
    try {
        handler->get_page_advertisement();
        handler->get_eeprom_page_list();
        handler->set_port_admin_status("down");
    } catch (const std::exception&) {
    }
    handler.reset();
    return 0;
}
