#include <fmt/format.h>

#include <tuple>

#include "handler_test_support.hpp"

namespace qsfpd::handler_test {
namespace {

// Node kinds and the paths below "qsfp/" of that kind.
using node_groups = std::vector<std::pair<std::string, std::string>>;
const node_groups constructor_nodes = {
    {"const value",
     "dataModel inventory/vendor inventory/partNumber inventory/partName inventory/description "
     "inventory/identifier inventory/IsQsfpDD"},
    {"status value", "data/dhReady alarms/unsupported/severity data/configStatus"}};
const node_groups start_nodes = {
    {"const value",
     "param/fecDefault inventory/typeOfModuleInSlot inventory/hwRevision inventory/serialNumber "
     "data/capability"},
    {"volatile value",
     "data/pageDump/lowerPage data/pageDump/upperBankedPage data/pageDump/upperPage/activePages "
     "data/pageDump/advertised data/debug/reg/address data/debug/reg/mask data/debug/reg/wr_data "
     "data/debug/reg/rd_data"},
    {"config param",
     "config/pageDump/currentUpperPageNumber config/pageDump/currentUpperBankNumber config/dhReady "
     "config/debug/reg/address config/debug/reg/mask config/debug/reg/wr_data"}};

// SFF-8024 Table 4-1 joined by '|', written out here on its own so the handler's table is checked
// against it.
const std::string sff8024_names =
    "Unknown or unspecified|GBIC|Module/connector soldered to motherboard (using SFF-8472)|"
    "SFP/SFP+/SFP28|300 pin XBI|XENPAK|XFP|XFF|XFP-E|XPAK|X2|DWDM-SFP/SFP+ (not using SFF-8472)|"
    "QSFP (INF-8438)|QSFP+ or later (SFF-8436, SFF-8635, SFF-8665, SFF-8685 et al)|CXP or later|"
    "Shielded Mini Multilane HD 4X|Shielded Mini Multilane HD 8X|QSFP28 or later (SFF-8665 et al)|"
    "CXP2 (aka CXP28) or later|CDFP (Style 1/Style2)|Shielded Mini Multilane HD 4X Fanout Cable|"
    "Shielded Mini Multilane HD 8X Fanout Cable|CDFP (Style 3)|microQSFP|"
    "QSFP-DD Double Density 8X Pluggable Transceiver (INF-8628)|OSFP 8X Pluggable Transceiver|"
    "SFP-DD Double Density 2X Pluggable Transceiver|"
    "DSFP Dual Small Form Factor Pluggable Transceiver|x4 MiniLink/OcuLink|x8 MiniLink|"
    "QSFP+ or later with Common Management Interface Specification (CMIS)";

// The bytes of a page dump, row by row, checking the row offsets on the way.
std::vector<std::uint8_t> dump_bytes(const rapidjson::Value& page, unsigned offset) {
    std::vector<std::uint8_t> bytes;
    for (const auto& row : page["rows"].GetArray()) {
        EXPECT_EQ(std::string(row["offset"].GetString()), fmt::format("0x{:02X}", offset));
        offset += 16;
        std::istringstream hex(row["hex"].GetString());
        for (unsigned byte; hex >> std::hex >> byte;)
            bytes.push_back(static_cast<std::uint8_t>(byte));
    }
    return bytes;
}

class Handler : public handler_fixture {
  protected:
    // Checks each node's kind; returns how many nodes the groups name.
    std::size_t expect_nodes(const node_groups& groups) {
        std::size_t n = 0;
        for (const auto& [kind, paths] : groups) {
            std::istringstream in(paths);
            for (std::string path; in >> path; ++n) {
                const auto node = db.find("qsfp/" + path);
                EXPECT_EQ(node ? node->kind() : "missing", kind) << path;
            }
        }
        return n;
    }
    // The advertised pages as "number description|" each.
    std::string advertised() {
        std::string out;
        const auto doc = dump("data/pageDump/advertised");  // outlives the loop over its pages
        for (const auto& p : doc["pages"].GetArray())
            out +=
                fmt::format("{:02X}h {}|", p["pageNumber"].GetUint(), p["description"].GetString());
        return out;
    }
};

TEST_F(Handler, ConstructorAndStartRegisterTheirNodesAndReleasingTheHandlerRemovesThemAll) {
    insert("qsfp28_100g_lr4");
    auto handler = make_handler();
    EXPECT_EQ(db.size(), expect_nodes(constructor_nodes));
    EXPECT_EQ(values("dataModel inventory/vendor inventory/partNumber inventory/partName "
                     "inventory/description data/dhReady alarms/unsupported/severity "
                     "data/configStatus"),
              R"("model-1" "VENDOR" "PN-1" "PART NAME" "a description" false 0 false)");

    handler->start();
    EXPECT_EQ(db.size(), expect_nodes(constructor_nodes) + expect_nodes(start_nodes));
    std::weak_ptr<qsfp_device_handler> gone = handler;
    handler.reset();
    EXPECT_TRUE(gone.expired());
    EXPECT_EQ(db.size(), 0u);
}

TEST_F(Handler, IdentityAndInventoryOfAnSff8636AndACmisModule) {
    using row = std::tuple<const char*, bool, std::string>;
    for (const auto& [profile, fec, expected] :
         {row{"qsfp28_100g_lr4", true,
              R"x(17 false "QSFP28 or later (SFF-8665 et al)" "A0" "CN03MFXG56I0001" true 0)x"},
          row{"qsfpdd_400zr", false,
              R"x(24 true "QSFP-DD Double Density 8X Pluggable Transceiver (INF-8628)" "01" )x"
              R"x("EMU0000000000040" false 0)x"}}) {
        SCOPED_TRACE(profile);
        auto handler = started(profile, qsfp_flags_s{.isFec = fec});
        EXPECT_EQ(values("inventory/identifier inventory/IsQsfpDD inventory/typeOfModuleInSlot "
                         "inventory/hwRevision inventory/serialNumber param/fecDefault "
                         "data/capability"),
                  expected);
    }
}

TEST_F(Handler, EveryIdentifierIsNamedAndThoseFrom31OnAreUnknown) {
    insert("qsfp28_100g_lr4");
    auto handler = make_handler();
    std::string names;
    for (unsigned id = 0; id <= 0xFF; ++id) {
        cage_emu->module()->poke({}, 0, static_cast<std::uint8_t>(id));
        const auto type = handler->get_type_of_module_in_slot();
        if (id < 31)
            names += (id == 0 ? "" : "|") + type;
        else
            EXPECT_EQ(type, "Unknown module type") << "identifier " << id;
    }
    EXPECT_EQ(names, sff8024_names);
}

TEST_F(Handler, ReadinessAndTheUnsupportedAlarmArePublished) {
    auto handler = started();  // the test handler reports ready at the end of its start()
    EXPECT_TRUE(handler->get_dh_ready());
    EXPECT_EQ(values("data/dhReady config/dhReady"), "true true");
    const auto records = logs.find("Setting dh ready");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].tag, "qsfp3/init");
    EXPECT_EQ(records[0].severity, ::msg_log::info);

    write("qsfp/config/dhReady", false);
    EXPECT_FALSE(handler->get_dh_ready());
    EXPECT_EQ(values("data/dhReady config/dhReady"), "false false");
    EXPECT_EQ(logs.count("Setting dh ready"), 2u);

    handler->set_unsupported();
    handler->set_unsupported();  // stays raised
    EXPECT_EQ(values("alarms/unsupported/severity"), "1");
}

TEST_F(Handler, AdminStatusIsAppliedOnlyWhenItChangesAndIllegalValuesAreRefused) {
    auto handler = started();
    cage_emu->module()->poke({}, tx_disable_byte, 0x0F);
    using step = std::tuple<std::string, bool, std::uint8_t, std::string>;
    for (const auto& [status, applied, tx_disable, log] :
         {step{"up", true, 0x00, "Setting adminstatus up qsfp"},
          step{"up", false, 0x00,
               "Setting adminstatus up but adminstatus is already up, do nothing. qsfp"},
          step{"down", true, 0x0F, "Setting adminstatus down qsfp"},
          step{"down", false, 0x0F,
               "Setting adminstatus down but adminstatus is already down, do nothing. qsfp"}}) {
        SCOPED_TRACE(log);
        logs.clear();
        const auto before = transactions();
        handler->set_port_admin_status(status);
        EXPECT_EQ(transactions() > before, applied);
        EXPECT_EQ(cage_emu->module()->peek({}, tx_disable_byte) & 0x0F, tx_disable);
        EXPECT_EQ(handler->get_port_admin_status(), status);
        const auto records = logs.find(log);
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0].tag, "qsfp3/config");
    }
    const auto before = transactions();
    const auto e = error_of([&] { handler->set_port_admin_status("sideways"); });
    EXPECT_EQ(e.code(), -22);
    EXPECT_EQ(e.text(), "Illegal parameter admin status: sideways ");
    EXPECT_EQ(transactions(), before);
    EXPECT_EQ(logs.count("Illegal parameter admin status: sideways "), 1u);
    EXPECT_EQ(handler->get_port_admin_status(), "down");
}

TEST_F(Handler, RegisterAddressAndMaskAloneTouchNothingWrDataWritesMaskedAtOnce) {
    auto handler = started();
    cage_emu->module()->poke({}, tx_disable_byte, 0xA0);
    const auto before_selection = transactions();
    write("qsfp/config/debug/reg/address", tx_disable_byte);
    write("qsfp/config/debug/reg/mask", 0x0F);
    EXPECT_EQ(values("data/debug/reg/address data/debug/reg/mask"), "86 15");
    EXPECT_EQ(transactions(), before_selection);
    EXPECT_EQ(cage_emu->module()->peek({}, tx_disable_byte), 0xA0);

    write("qsfp/config/debug/reg/wr_data", 0x55);
    // Only the masked bits changed.
    EXPECT_EQ(cage_emu->module()->peek({}, tx_disable_byte), 0xA5);
    EXPECT_EQ(values("data/debug/reg/wr_data data/debug/reg/rd_data"), "85 165");  // 55h A5h

    EXPECT_EQ(error_of([&] { write("qsfp/config/debug/reg/mask", 0x100); }).code(), -22);
    EXPECT_EQ(handler->get_reg_mask(), 0x0Fu);

    // Upper pages by flat address: page 03h byte 230 (writable in this module) at 3 * 128 + 230.
    write("qsfp/config/debug/reg/address", 3 * 128 + 230);
    write("qsfp/config/debug/reg/mask", 0xFF);
    write("qsfp/config/debug/reg/wr_data", 0x3C);
    EXPECT_EQ(cage_emu->module()->peek({0, 3}, 230), 0x3C);
    cage_emu->module()->poke({0, 3}, 230, 0x42);
    EXPECT_EQ(values("data/debug/reg/rd_data"), "66");
}

TEST_F(Handler, LowerPageDumpIsOneBlockReadOfTheModulesBytes) {
    auto handler = started();
    const auto before = bus->counters(cage_emu->bus_index());
    const auto doc = dump("data/pageDump/lowerPage");
    const auto after = bus->counters(cage_emu->bus_index());
    EXPECT_EQ(after.transactions - before.transactions, 1u);
    EXPECT_EQ(after.bytes - before.bytes, 128u);
    EXPECT_EQ(std::string(doc["page"].GetString()), "Lower Page");
    EXPECT_EQ(doc["bank"].GetUint(), 0u);
    EXPECT_EQ(doc["pageNumber"].GetUint(), 0u);
    EXPECT_TRUE(doc["description"].IsString());
    // Bytes 2-21 are the interrupt status and the clear-on-read latched flags: the dump's own
    // read cleared them, so a second read differs there.
    auto dumped = dump_bytes(doc, 0x00);
    auto direct = cage_bytes(0, false);
    ASSERT_EQ(dumped.size(), 128u);
    std::fill(dumped.begin() + 2, dumped.begin() + 22, 0);
    std::fill(direct.begin() + 2, direct.begin() + 22, 0);
    EXPECT_EQ(dumped, direct);
}

TEST_F(Handler, BankedPageDumpReadsTheSelectedPageOfBank0) {
    auto handler = started();
    handler->set_eeprom_page(0x20);
    const auto e = error_of([&] { handler->get_banked_page_dump(); });
    EXPECT_EQ(e.code(), -22);
    EXPECT_EQ(e.text(), "Page 20h is not implemented by the module");
    // The device's idea of the selected page was not left wrong: page 03h reads as itself.
    write("qsfp/config/pageDump/currentUpperPageNumber", 3);
    EXPECT_EQ(values("config/pageDump/currentUpperPageNumber"), "3");
    const auto doc = dump("data/pageDump/upperBankedPage");
    EXPECT_EQ(std::string(doc["page"].GetString()), "Upper Page 03h");
    EXPECT_EQ(doc["pageNumber"].GetUint(), 3u);
    EXPECT_EQ(std::string(doc["description"].GetString()),
              "Thresholds, Masks, Ability registers and Channel Control");
    EXPECT_EQ(dump_bytes(doc, 0x80), cage_bytes(3, true));

    handler->set_eeprom_bank_and_page(R"({"bank": 0, "page": 2})");
    EXPECT_EQ(
        values("config/pageDump/currentUpperPageNumber config/pageDump/currentUpperBankNumber"),
        "2 0");
    const auto page2 = dump("data/pageDump/upperBankedPage");
    EXPECT_EQ(std::string(page2["description"].GetString()), "User-Writable EEPROM");
    EXPECT_EQ(dump_bytes(page2, 0x80), cage_bytes(2, true));
    for (const char* bad : {"", "[]", R"({"page": "two"})", R"({"page": 256})", R"({"bank": -1})"})
        EXPECT_EQ(error_of([&] { handler->set_eeprom_bank_and_page(bad); }).code(), -22) << bad;

    // An SFF-8636 module has bank 0 only: bank 1 is refused when chosen, however it is chosen.
    for (const auto& choose : std::vector<std::function<void()>>{
             [&] { write("qsfp/config/pageDump/currentUpperBankNumber", 1); },
             [&] { handler->set_eeprom_bank_and_page(R"({"bank": 1, "page": 3})"); }}) {
        const auto refused = error_of(choose);
        EXPECT_EQ(refused.code(), -22);
        EXPECT_EQ(refused.text(), "Bank 1 not supported: the module has bank 0 only");
    }
    EXPECT_EQ(
        values("config/pageDump/currentUpperPageNumber config/pageDump/currentUpperBankNumber"),
        "2 0");
    EXPECT_EQ(dump_bytes(dump("data/pageDump/upperBankedPage"), 0x80), cage_bytes(2, true));
}

TEST_F(Handler, AdvertisedPagesAreTheSff8636ListAndActivePagesDumpEveryPageTheModuleHas) {
    auto handler = started();  // pages 00h-03h, no 20h-21h
    EXPECT_EQ(advertised(),
              "00h Identification information|01h Application Select Table|"
              "02h User-Writable EEPROM|03h Thresholds, Masks, Ability registers and Channel "
              "Control|20h PAM-4 and WDM Features|21h PAM-4 and WDM Features|");
    const auto active = dump("data/pageDump/upperPage/activePages");
    ASSERT_EQ(active["pages"].Size(), 4u);
    for (unsigned i = 0; i < 4; ++i) {
        EXPECT_EQ(active["pages"][i]["pageNumber"].GetUint(), i);
        EXPECT_EQ(dump_bytes(active["pages"][i], 0x80), cage_bytes(i, true)) << "page " << i;
    }
}

TEST_F(Handler, OnACmisModuleTheBaseAdvertisesPage00hOnlyAndTheBanksAreTheModules) {
    auto handler = started("qsfpdd_400zr");
    EXPECT_EQ(advertised(), "00h Identification information|");
    const auto active = dump("data/pageDump/upperPage/activePages");
    ASSERT_EQ(active["pages"].Size(), 1u);
    EXPECT_EQ(dump_bytes(active["pages"][0], 0x80), cage_bytes(0, true));

    // Page 01h byte 142 bits 1-0, BanksSupported: 1 means banks 0 and 1.
    poke_upper(1, 142, (module().peek({0, 1}, 142) & 0xFC) | 0x01);
    write("qsfp/config/pageDump/currentUpperBankNumber", 1);
    EXPECT_EQ(values("config/pageDump/currentUpperBankNumber"), "1");
    EXPECT_EQ(error_of([&] { handler->set_eeprom_bank_and_page(R"({"bank": 2})"); }).text(),
              "Bank 2 not supported: the module has banks 0 to 1");
}

}  // namespace
}  // namespace qsfpd::handler_test
