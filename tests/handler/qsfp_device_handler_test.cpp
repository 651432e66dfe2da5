#include <fmt/format.h>

#include <set>
#include <utility>

#include "../support/test_owner.hpp"
#include "handler_test_support.hpp"

namespace qsfpd::handler_test {
namespace {

using path_kind = std::pair<std::string, std::string>;

// The constructor's nodes, in the order it creates them.
const std::vector<path_kind> constructor_nodes = {
    {"qsfp/dataModel", "const value"},
    {"qsfp/inventory/vendor", "const value"},
    {"qsfp/inventory/partNumber", "const value"},
    {"qsfp/inventory/partName", "const value"},
    {"qsfp/inventory/description", "const value"},
    {"qsfp/inventory/identifier", "const value"},
    {"qsfp/inventory/IsQsfpDD", "const value"},
    {"qsfp/data/dhReady", "status value"},
    {"qsfp/alarms/unsupported/severity", "status value"},
    {"qsfp/data/configStatus", "status value"},
};

const std::vector<path_kind> start_nodes = {
    {"qsfp/param/fecDefault", "const value"},
    {"qsfp/inventory/typeOfModuleInSlot", "const value"},
    {"qsfp/inventory/hwRevision", "const value"},
    {"qsfp/inventory/serialNumber", "const value"},
    {"qsfp/data/capability", "const value"},
    {"qsfp/data/pageDump/lowerPage", "volatile value"},
    {"qsfp/data/pageDump/upperBankedPage", "volatile value"},
    {"qsfp/config/pageDump/currentUpperPageNumber", "config param"},
    {"qsfp/config/pageDump/currentUpperBankNumber", "config param"},
    {"qsfp/data/pageDump/upperPage/activePages", "volatile value"},
    {"qsfp/data/pageDump/advertised", "volatile value"},
    {"qsfp/config/dhReady", "config param"},
    {"qsfp/data/debug/reg/address", "volatile value"},
    {"qsfp/config/debug/reg/address", "config param"},
    {"qsfp/data/debug/reg/mask", "volatile value"},
    {"qsfp/config/debug/reg/mask", "config param"},
    {"qsfp/data/debug/reg/wr_data", "volatile value"},
    {"qsfp/config/debug/reg/wr_data", "config param"},
    {"qsfp/data/debug/reg/rd_data", "volatile value"},
};

// SFF-8024 Table 4-1, written out here on its own so the handler's table is checked against it.
const std::vector<std::string> sff8024_names = {
    "Unknown or unspecified",
    "GBIC",
    "Module/connector soldered to motherboard (using SFF-8472)",
    "SFP/SFP+/SFP28",
    "300 pin XBI",
    "XENPAK",
    "XFP",
    "XFF",
    "XFP-E",
    "XPAK",
    "X2",
    "DWDM-SFP/SFP+ (not using SFF-8472)",
    "QSFP (INF-8438)",
    "QSFP+ or later (SFF-8436, SFF-8635, SFF-8665, SFF-8685 et al)",
    "CXP or later",
    "Shielded Mini Multilane HD 4X",
    "Shielded Mini Multilane HD 8X",
    "QSFP28 or later (SFF-8665 et al)",
    "CXP2 (aka CXP28) or later",
    "CDFP (Style 1/Style2)",
    "Shielded Mini Multilane HD 4X Fanout Cable",
    "Shielded Mini Multilane HD 8X Fanout Cable",
    "CDFP (Style 3)",
    "microQSFP",
    "QSFP-DD Double Density 8X Pluggable Transceiver (INF-8628)",
    "OSFP 8X Pluggable Transceiver",
    "SFP-DD Double Density 2X Pluggable Transceiver",
    "DSFP Dual Small Form Factor Pluggable Transceiver",
    "x4 MiniLink/OcuLink",
    "x8 MiniLink",
    "QSFP+ or later with Common Management Interface Specification (CMIS)",
};

std::set<std::string> db_paths(const dh_db& db) {
    std::set<std::string> out;
    for (const auto& entry : db.list())
        out.insert(entry.path);
    return out;
}

// The bytes of a page dump, row by row, checking the row offsets on the way.
std::vector<std::uint8_t> dump_bytes(const rapidjson::Value& page, unsigned first_offset) {
    std::vector<std::uint8_t> bytes;
    EXPECT_TRUE(page.HasMember("rows"));
    unsigned expected_offset = first_offset;
    for (const auto& row : page["rows"].GetArray()) {
        EXPECT_EQ(std::string(row["offset"].GetString()), fmt::format("0x{:02X}", expected_offset));
        std::istringstream hex(row["hex"].GetString());
        std::string byte;
        unsigned in_row = 0;
        while (hex >> byte) {
            bytes.push_back(static_cast<std::uint8_t>(std::stoul(byte, nullptr, 16)));
            ++in_row;
        }
        EXPECT_EQ(in_row, 16u);
        expected_offset += 16;
    }
    return bytes;
}

std::vector<std::uint8_t> as_vector(const std::array<std::uint8_t, 128>& a) {
    return {a.begin(), a.end()};
}

using Handler = handler_fixture;

TEST_F(Handler, ConstructorRegistersItsNodesWithTheirKinds) {
    insert("qsfp28_100g_lr4");
    auto handler = make_handler();
    EXPECT_EQ(db.size(), constructor_nodes.size());
    for (const auto& [path, kind] : constructor_nodes) {
        const auto node = db.find(path);
        ASSERT_NE(node, nullptr) << path;
        EXPECT_EQ(node->kind(), kind) << path;
    }
    EXPECT_EQ(read_string("qsfp/dataModel"), "model-1");
    EXPECT_EQ(read_string("qsfp/inventory/vendor"), "VENDOR");
    EXPECT_EQ(read_string("qsfp/inventory/partNumber"), "PN-1");
    EXPECT_EQ(read_string("qsfp/inventory/partName"), "PART NAME");
    EXPECT_EQ(read_string("qsfp/inventory/description"), "a description");
    EXPECT_FALSE(read_json("qsfp/data/dhReady").GetBool());
    EXPECT_EQ(read_json("qsfp/alarms/unsupported/severity").GetInt(), 0);
    EXPECT_FALSE(read_json("qsfp/data/configStatus").GetBool());
}

TEST_F(Handler, StartAddsItsNodesAndReleasingTheHandlerRemovesThemAll) {
    insert("qsfp28_100g_lr4");
    auto handler = make_handler();
    handler->start();
    EXPECT_EQ(db.size(), constructor_nodes.size() + start_nodes.size());
    for (const auto& [path, kind] : start_nodes) {
        const auto node = db.find(path);
        ASSERT_NE(node, nullptr) << path;
        EXPECT_EQ(node->kind(), kind) << path;
    }
    std::weak_ptr<qsfp_device_handler> gone = handler;
    handler.reset();
    EXPECT_TRUE(gone.expired());
    EXPECT_EQ(db_paths(db), std::set<std::string>{});
}

TEST_F(Handler, Lr4IdentityAndInventory) {
    insert("qsfp28_100g_lr4");
    auto handler = make_handler(qsfp_flags_s{.isFec = true});
    handler->start();
    EXPECT_EQ(read_json("qsfp/inventory/identifier").GetUint(), 0x11u);
    EXPECT_FALSE(read_json("qsfp/inventory/IsQsfpDD").GetBool());
    EXPECT_EQ(read_string("qsfp/inventory/typeOfModuleInSlot"), "QSFP28 or later (SFF-8665 et al)");
    EXPECT_EQ(read_string("qsfp/inventory/hwRevision"), "A0");
    EXPECT_EQ(read_string("qsfp/inventory/serialNumber"), "CN03MFXG56I0001");
    EXPECT_TRUE(read_json("qsfp/param/fecDefault").GetBool());
    EXPECT_EQ(read_json("qsfp/data/capability").GetInt(), 0);
    EXPECT_EQ(handler->get_capability(), "0");
    EXPECT_EQ(handler->get_part_name(), "PART NAME");
    EXPECT_FALSE(handler->dh_needs_restart());
}

TEST_F(Handler, CoherentQsfpDdIdentityAndInventory) {
    insert("qsfpdd_400zr");
    auto handler = make_handler();
    handler->start();
    EXPECT_EQ(read_json("qsfp/inventory/identifier").GetUint(), 0x18u);
    EXPECT_TRUE(read_json("qsfp/inventory/IsQsfpDD").GetBool());
    EXPECT_EQ(read_string("qsfp/inventory/typeOfModuleInSlot"),
              "QSFP-DD Double Density 8X Pluggable Transceiver (INF-8628)");
    EXPECT_EQ(read_string("qsfp/inventory/hwRevision"), "01");
    EXPECT_EQ(read_string("qsfp/inventory/serialNumber"), "EMU0000000000040");
    EXPECT_FALSE(read_json("qsfp/param/fecDefault").GetBool());
}

TEST_F(Handler, EveryIdentifierIsNamedAndThoseFrom31OnAreUnknown) {
    insert("qsfp28_100g_lr4");
    auto handler = make_handler();
    for (unsigned id = 0; id <= 0xFF; ++id) {
        cage_emu->module()->poke({}, 0, static_cast<std::uint8_t>(id));
        const std::string expected =
            id < sff8024_names.size() ? sff8024_names[id] : "Unknown module type";
        EXPECT_EQ(handler->get_type_of_module_in_slot(), expected) << "identifier " << id;
    }
    EXPECT_EQ(sff8024_names.size(), 31u);
}

TEST_F(Handler, ReadinessIsLoggedAndPublished) {
    insert("qsfp28_100g_lr4");
    auto handler = make_handler();
    handler->start();  // the test handler reports ready at the end of its start()
    EXPECT_TRUE(handler->get_dh_ready());
    EXPECT_TRUE(read_json("qsfp/data/dhReady").GetBool());
    EXPECT_TRUE(read_json("qsfp/config/dhReady").GetBool());
    const auto records = logs.find("Setting dh ready");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].tag, "qsfp3/init");
    EXPECT_EQ(records[0].severity, ::msg_log::info);

    db.lookup("qsfp/config/dhReady")->set("qsfp/config/dhReady", dh::json_value(false));
    EXPECT_FALSE(handler->get_dh_ready());
    EXPECT_FALSE(read_json("qsfp/data/dhReady").GetBool());
    EXPECT_FALSE(read_json("qsfp/config/dhReady").GetBool());
    EXPECT_EQ(logs.count("Setting dh ready"), 2u);
}

TEST_F(Handler, UnsupportedAlarmIsRaisedOnceAndStays) {
    insert("qsfp28_100g_lr4");
    auto handler = make_handler();
    auto node = db.lookup("qsfp/alarms/unsupported/severity");
    auto session = std::make_shared<qsfpd::test::recording_session>();
    rapidjson::Document scratch;
    dh::json_value current;
    node->subscribe(session, "qsfp/alarms/unsupported/severity", scratch.GetAllocator(), current);
    EXPECT_EQ(current.GetInt(), 0);

    handler->set_unsupported();
    handler->set_unsupported();
    EXPECT_EQ(read_json("qsfp/alarms/unsupported/severity").GetInt(), 1);
    EXPECT_EQ(
        session->lines(),
        (std::vector<std::string>{
            R"({"jsonrpc":"2.0","method":"changed","params":{"path":"qsfp/alarms/unsupported/severity","value":1}})"
            "\n"}));
    node->unsubscribe(session);
}

std::uint8_t tx_disable(emu::cage_emulator& cage) {
    return cage.module()->peek({}, tx_disable_byte);
}

TEST_F(Handler, AdminStatusUpTwiceSecondIsLoggedAndTouchesNoRegister) {
    insert("qsfp28_100g_lr4");
    cage_emu->module()->poke({}, tx_disable_byte, 0x0F);
    auto handler = make_handler();
    handler->start();

    const auto before_first = transactions();
    handler->set_port_admin_status("up");
    EXPECT_GT(transactions(), before_first);
    EXPECT_EQ(tx_disable(*cage_emu) & 0x0F, 0x00);
    EXPECT_EQ(handler->get_port_admin_status(), "up");
    const auto first = logs.find("Setting adminstatus up qsfp");
    ASSERT_EQ(first.size(), 1u);
    EXPECT_EQ(first[0].tag, "qsfp3/config");

    const auto before_second = transactions();
    handler->set_port_admin_status("up");
    EXPECT_EQ(transactions(), before_second);
    EXPECT_EQ(logs.count("Setting adminstatus up but adminstatus is already up, do nothing. qsfp"),
              1u);
    EXPECT_EQ(logs.count("Setting adminstatus up qsfp"), 1u);
    EXPECT_EQ(handler->get_port_admin_status(), "up");
}

TEST_F(Handler, AdminStatusDownAfterUpAndDownTwice) {
    insert("qsfp28_100g_lr4");
    auto handler = make_handler();
    handler->start();
    handler->set_port_admin_status("up");
    handler->set_port_admin_status("down");
    EXPECT_EQ(handler->get_port_admin_status(), "down");
    EXPECT_EQ(tx_disable(*cage_emu) & 0x0F, 0x0F);
    EXPECT_EQ(logs.count("Setting adminstatus down qsfp"), 1u);

    const auto before = transactions();
    handler->set_port_admin_status("down");
    EXPECT_EQ(transactions(), before);
    EXPECT_EQ(
        logs.count("Setting adminstatus down but adminstatus is already down, do nothing. qsfp"),
        1u);
}

TEST_F(Handler, IllegalAdminStatusIsRefusedWithMinus22AndLogged) {
    insert("qsfp28_100g_lr4");
    auto handler = make_handler();
    handler->start();
    handler->set_port_admin_status("up");
    const auto before = transactions();
    try {
        handler->set_port_admin_status("sideways");
        FAIL() << "accepted";
    } catch (const dh_error& e) {
        EXPECT_EQ(e.code(), -22);
        EXPECT_EQ(e.text(), "Illegal parameter admin status: sideways ");
    }
    EXPECT_EQ(transactions(), before);
    EXPECT_EQ(logs.count("Illegal parameter admin status: sideways "), 1u);
    EXPECT_EQ(handler->get_port_admin_status(), "up");
}

TEST_F(Handler, RegisterAddressAndMaskAloneTouchNothingWrDataWritesMaskedAtOnce) {
    insert("qsfp28_100g_lr4");
    cage_emu->module()->poke({}, tx_disable_byte, 0xA0);
    auto handler = make_handler();
    handler->start();

    const auto before_selection = transactions();
    write("qsfp/config/debug/reg/address", tx_disable_byte);
    write("qsfp/config/debug/reg/mask", 0x0F);
    EXPECT_EQ(transactions(), before_selection);
    EXPECT_EQ(read_json("qsfp/data/debug/reg/address").GetUint(), tx_disable_byte);
    EXPECT_EQ(read_json("qsfp/data/debug/reg/mask").GetUint(), 0x0Fu);
    EXPECT_EQ(transactions(), before_selection);
    EXPECT_EQ(cage_emu->module()->peek({}, tx_disable_byte), 0xA0);

    write("qsfp/config/debug/reg/wr_data", 0x55);
    EXPECT_GT(transactions(), before_selection);
    // Only the masked bits changed.
    EXPECT_EQ(cage_emu->module()->peek({}, tx_disable_byte), 0xA5);
    EXPECT_EQ(read_json("qsfp/data/debug/reg/wr_data").GetUint(), 0x55u);
    EXPECT_EQ(read_json("qsfp/data/debug/reg/rd_data").GetUint(), 0xA5u);
}

TEST_F(Handler, RegisterDebugReachesUpperPagesByFlatAddress) {
    insert("qsfp28_100g_lr4");
    auto handler = make_handler();
    handler->start();
    // Page 03h byte 230 (writable in this module) at 3 * 128 + 230.
    write("qsfp/config/debug/reg/address", 3 * 128 + 230);
    write("qsfp/config/debug/reg/mask", 0xFF);
    write("qsfp/config/debug/reg/wr_data", 0x3C);
    EXPECT_EQ(cage_emu->module()->peek({0, 3}, 230), 0x3C);
    cage_emu->module()->poke({0, 3}, 230, 0x42);
    EXPECT_EQ(read_json("qsfp/data/debug/reg/rd_data").GetUint(), 0x42u);
}

TEST_F(Handler, RegisterSelectionOutOfRangeIsRefused) {
    insert("qsfp28_100g_lr4");
    auto handler = make_handler();
    handler->start();
    try {
        write("qsfp/config/debug/reg/mask", 0x100);
        FAIL() << "accepted";
    } catch (const dh_error& e) {
        EXPECT_EQ(e.code(), -22);
    }
    EXPECT_EQ(handler->get_reg_mask(), 0u);
}

TEST_F(Handler, ReadOfAnUnpluggedModuleIsLoggedAndFails) {
    insert("qsfp28_100g_lr4");
    auto handler = make_handler();
    handler->start();
    cage_emu->remove();
    EXPECT_THROW(handler->get_reg_rd_data(), std::system_error);
    EXPECT_EQ(logs.count("Module unplugged qsfp"), 1u);
}

TEST_F(Handler, LowerPageDumpIsOneBlockReadOfTheModulesBytes) {
    insert("qsfp28_100g_lr4");
    auto handler = make_handler();
    handler->start();
    const auto before = bus->counters(cage_emu->bus_index());
    const auto doc = read_embedded_json("qsfp/data/pageDump/lowerPage");
    const auto after = bus->counters(cage_emu->bus_index());
    EXPECT_EQ(after.transactions - before.transactions, 1u);
    EXPECT_EQ(after.bytes - before.bytes, 128u);

    EXPECT_EQ(std::string(doc["page"].GetString()), "Lower Page");
    EXPECT_EQ(doc["bank"].GetUint(), 0u);
    EXPECT_EQ(doc["pageNumber"].GetUint(), 0u);
    EXPECT_TRUE(doc["description"].IsString());
    EXPECT_EQ(doc["rows"].Size(), 8u);
    // Bytes 2-21 are the interrupt status and the clear-on-read latched flags: the dump's own
    // read cleared them, so a second read differs there.
    auto dumped = dump_bytes(doc, 0x00);
    auto direct = as_vector(cage_bytes(0, false));
    ASSERT_EQ(dumped.size(), 128u);
    for (std::size_t at = 2; at <= 21; ++at)
        dumped[at] = direct[at] = 0;
    EXPECT_EQ(dumped, direct);
}

TEST_F(Handler, BankedPageDumpReadsTheSelectedPage) {
    insert("qsfp28_100g_lr4");
    auto handler = make_handler();
    handler->start();
    write("qsfp/config/pageDump/currentUpperPageNumber", 3);
    EXPECT_EQ(read_json("qsfp/config/pageDump/currentUpperPageNumber").GetUint(), 3u);
    const auto doc = read_embedded_json("qsfp/data/pageDump/upperBankedPage");
    EXPECT_EQ(std::string(doc["page"].GetString()), "Upper Page 03h");
    EXPECT_EQ(doc["pageNumber"].GetUint(), 3u);
    EXPECT_EQ(std::string(doc["description"].GetString()),
              "Thresholds, Masks, Ability registers and Channel Control");
    EXPECT_EQ(dump_bytes(doc, 0x80), as_vector(cage_bytes(3, true)));

    handler->set_eeprom_bank_and_page(R"({"page": 0})");
    EXPECT_EQ(read_json("qsfp/config/pageDump/currentUpperPageNumber").GetUint(), 0u);
    const auto page0 = read_embedded_json("qsfp/data/pageDump/upperBankedPage");
    EXPECT_EQ(std::string(page0["description"].GetString()), "Identification information");
    EXPECT_EQ(dump_bytes(page0, 0x80), as_vector(cage_bytes(0, true)));
}

TEST_F(Handler, BankedPageDumpOfAPageTheModuleLacksFails) {
    insert("qsfp28_100g_lr4");
    auto handler = make_handler();
    handler->start();
    handler->set_eeprom_page(0x20);
    try {
        handler->get_banked_page_dump();
        FAIL() << "dumped a page the module lacks";
    } catch (const dh_error& e) {
        EXPECT_EQ(e.code(), -22);
        EXPECT_EQ(e.text(), "Page 20h is not implemented by the module");
    }
    // The device's idea of the selected page was not left wrong: page 03h still reads as itself.
    handler->set_eeprom_page(3);
    rapidjson::Document doc;
    doc.Parse(handler->get_banked_page_dump().c_str());
    EXPECT_EQ(dump_bytes(doc, 0x80), as_vector(cage_bytes(3, true)));
}

TEST_F(Handler, AdvertisedPagesAreTheSff8636List) {
    insert("qsfp28_100g_lr4");
    auto handler = make_handler();
    handler->start();
    const auto doc = read_embedded_json("qsfp/data/pageDump/advertised");
    const std::vector<std::pair<unsigned, std::string>> expected = {
        {0x00, "Identification information"},
        {0x01, "Application Select Table"},
        {0x02, "User-Writable EEPROM"},
        {0x03, "Thresholds, Masks, Ability registers and Channel Control"},
        {0x20, "PAM-4 and WDM Features"},
        {0x21, "PAM-4 and WDM Features"},
    };
    std::vector<std::pair<unsigned, std::string>> got;
    for (const auto& p : doc["pages"].GetArray())
        got.emplace_back(p["pageNumber"].GetUint(), p["description"].GetString());
    EXPECT_EQ(got, expected);
}

TEST_F(Handler, ActivePagesDumpEveryPageTheModuleHas) {
    insert("qsfp28_100g_lr4");  // pages 00h-03h, no 20h-21h
    auto handler = make_handler();
    handler->start();
    const auto doc = read_embedded_json("qsfp/data/pageDump/upperPage/activePages");
    const auto& pages = doc["pages"];
    ASSERT_EQ(pages.Size(), 4u);
    for (unsigned i = 0; i < 4; ++i) {
        EXPECT_EQ(pages[i]["pageNumber"].GetUint(), i);
        EXPECT_EQ(dump_bytes(pages[i], 0x80),
                  as_vector(cage_bytes(static_cast<std::uint8_t>(i), true)))
            << "page " << i;
    }
}

TEST_F(Handler, ANodeKeptPastItsHandlerAnswersObjectRemoved) {
    insert("qsfp28_100g_lr4");
    auto handler = make_handler();
    handler->start();
    const auto node = db.lookup("qsfp/data/debug/reg/rd_data");
    handler.reset();
    try {
        node->get_text("qsfp/data/debug/reg/rd_data");
        FAIL() << "read through a released handler";
    } catch (const dh_error& e) {
        EXPECT_EQ(e.text(), "Object has been removed");
    }
}

TEST_F(Handler, BankAndPageFromAJsonDocument) {
    insert("qsfp28_100g_lr4");
    auto handler = make_handler();
    handler->start();
    handler->set_eeprom_bank_and_page(R"({"bank": 0, "page": 2})");
    EXPECT_EQ(read_json("qsfp/config/pageDump/currentUpperPageNumber").GetUint(), 2u);
    EXPECT_EQ(read_json("qsfp/config/pageDump/currentUpperBankNumber").GetUint(), 0u);
    const auto doc = read_embedded_json("qsfp/data/pageDump/upperBankedPage");
    EXPECT_EQ(doc["pageNumber"].GetUint(), 2u);
    for (const char* bad :
         {"", "[]", R"({"page": "two"})", R"({"page": 256})", R"({"bank": -1})"}) {
        try {
            handler->set_eeprom_bank_and_page(bad);
            ADD_FAILURE() << "accepted " << bad;
        } catch (const dh_error& e) {
            EXPECT_EQ(e.code(), -22) << bad;
        }
    }
    EXPECT_EQ(read_json("qsfp/config/pageDump/currentUpperPageNumber").GetUint(), 2u);
}

TEST_F(Handler, OnACmisModuleTheBaseAdvertisesPage00hOnly) {
    insert("qsfpdd_400zr");
    auto handler = make_handler();
    handler->start();
    const auto advertised = read_embedded_json("qsfp/data/pageDump/advertised");
    ASSERT_EQ(advertised["pages"].Size(), 1u);
    EXPECT_EQ(advertised["pages"][0]["pageNumber"].GetUint(), 0u);
    const auto active = read_embedded_json("qsfp/data/pageDump/upperPage/activePages");
    ASSERT_EQ(active["pages"].Size(), 1u);
    EXPECT_EQ(dump_bytes(active["pages"][0], 0x80), as_vector(cage_bytes(0, true)));
}

}  // namespace
}  // namespace qsfpd::handler_test
