#include "dh_db.hpp"

#include <gtest/gtest.h>

#include "../support/test_owner.hpp"

namespace {
using namespace qsfpd::test;
using dh::api::status_value;

TEST(DhDb, SplitPathRefusesEmptyComponents) {
    EXPECT_EQ(dh_db::split_path("data/lane/0/txEnable"),
              (std::vector<std::string>{"data", "lane", "0", "txEnable"}));
    EXPECT_EQ(dh_db::split_path("/inventory/vendor"),
              (std::vector<std::string>{"inventory", "vendor"}));
    for (const char* bad : {"", "/", "data//x", "data/"}) {
        try {
            dh_db::split_path(bad);
            ADD_FAILURE() << "accepted " << bad;
        } catch (const dh_error& e) {
            EXPECT_EQ(e.code(), -22) << bad;
        }
    }
}

TEST(DhDb, NodeLeavesWhenOwnerReleasesIt) {
    dh_db db;
    auto owner = std::make_shared<test_owner>();
    auto node = status_value<int>::create(db, "alarms/txFault/severity", owner, 0);
    EXPECT_EQ(db.find("alarms/txFault/severity"), node);
    EXPECT_EQ(db.find("/alarms/txFault/severity"), node);
    node.reset();
    EXPECT_EQ(db.find("alarms/txFault/severity"), nullptr);
    EXPECT_EQ(db.size(), 0u);
    try {
        db.lookup("alarms/txFault/severity");
        FAIL();
    } catch (const dh_error& e) {
        EXPECT_EQ(e.code(), -2);
        EXPECT_EQ(e.text(), "No such node: alarms/txFault/severity");
    }
}

TEST(DhDb, DuplicateLivePathIsRefusedButAReleasedPathCanBeReused) {
    dh_db db;
    auto owner = std::make_shared<test_owner>();
    auto first = status_value<int>::create(db, "data/x", owner, 1);
    EXPECT_THROW(status_value<int>::create(db, "data/x", owner, 2), dh_error);
    EXPECT_EQ(db.find("data/x"), first);
    first.reset();
    auto second = status_value<int>::create(db, "data/x", owner, 3);
    EXPECT_EQ(db.find("data/x"), second);
}

TEST(DhDb, ReplacedEntryIsNotRemovedByTheOldNodesDestructor) {
    dh_db db;
    auto owner = std::make_shared<test_owner>();
    auto first = status_value<int>::create(db, "data/x", owner, 1);
    std::shared_ptr<dh_db_leaf_node> held = first;  // a request in flight still holds it
    first.reset();
    held.reset();
    auto second = status_value<int>::create(db, "data/x", owner, 2);
    EXPECT_EQ(db.find("data/x"), second);
}

TEST(DhDb, ListingMatchesWholeComponentsAndIsSorted) {
    dh_db db;
    auto owner = std::make_shared<test_owner>();
    std::vector<std::shared_ptr<dh_db_leaf_node>> keep;
    for (const char* path : {"data/temperature", "data/lane/1/rxPower", "data/lane/0/rxPower",
                             "database/x", "data-x/y", "config/adminStatus", "data"})
        keep.push_back(status_value<int>::create(db, path, owner, 0));
    std::vector<std::string> paths;
    for (const auto& e : db.list("data"))
        paths.push_back(e.path);
    EXPECT_EQ(paths, (std::vector<std::string>{"data", "data/lane/0/rxPower", "data/lane/1/rxPower",
                                               "data/temperature"}));
    paths.clear();
    for (const auto& e : db.list("data/lane/"))
        paths.push_back(e.path);
    EXPECT_EQ(paths, (std::vector<std::string>{"data/lane/0/rxPower", "data/lane/1/rxPower"}));
    EXPECT_EQ(db.list().size(), 7u);
    EXPECT_EQ(db.list().front().path, "config/adminStatus");
}

}  // namespace
