#include <gtest/gtest.h>

#include <rapidjson/document.h>

#include "emu_bus.hpp"
#include "virtual_clock.hpp"

namespace qsfpd::emu {
namespace {

using namespace std::chrono_literals;

TEST(EmuBusWireTime, BitCountsOfTheTransferShapes) {
    // start + addr/W + offset + repeated start + addr/R + n data + stop, 9 bits per byte
    EXPECT_EQ(emu_bus::combined_read_bits(55), 1u + 9 + 9 + 1 + 9 + 55 * 9 + 1);
    EXPECT_EQ(emu_bus::write_bits(2), 1u + 9 + 9 + 2 * 9 + 1);
    EXPECT_EQ(emu_bus::nack_bits(), 11u);
}

TEST(EmuBusWireTime, A55ByteCombinedReadAt400kHz) {
    auto clock = std::make_shared<virtual_clock>();
    emu_bus bus(clock);
    const auto cage = bus.attach("c");
    // 525 bits * 2.5 us = 1312.5 us
    EXPECT_EQ(bus.account(cage, emu_bus::kind::read, 55), std::chrono::nanoseconds(1'312'500));
    emu_bus slow(clock, 100'000);
    const auto c2 = slow.attach("c");
    EXPECT_EQ(slow.account(c2, emu_bus::kind::read, 55), std::chrono::nanoseconds(5'250'000));
    EXPECT_EQ(slow.account(c2, emu_bus::kind::write, 1, emu_bus::outcome::nack),
              std::chrono::nanoseconds(110'000));
}

TEST(EmuBusCounters, RingOfAccessTimesIsBounded) {
    auto clock = std::make_shared<virtual_clock>();
    emu_bus bus(clock, 400'000, 3);
    const auto c = bus.attach("c");
    std::vector<clock::time_point> times;
    for (int i = 0; i < 5; ++i) {
        times.push_back(clock->now());
        bus.account(c, emu_bus::kind::read, 1);
        clock->advance(10ms);
    }
    EXPECT_EQ(bus.accesses(c), (std::vector<clock::time_point>(times.begin() + 2, times.end())));
    EXPECT_EQ(bus.counters(c).transactions, 5u);
}

TEST(EmuBusCounters, SnapshotAsJson) {
    auto clock = std::make_shared<virtual_clock>();
    emu_bus bus(clock);
    const auto a = bus.attach("cage-a");
    const auto b = bus.attach("cage-b");
    bus.account(a, emu_bus::kind::read, 55);
    bus.account(b, emu_bus::kind::write, 2);
    bus.account(b, emu_bus::kind::read, 4, emu_bus::outcome::nack);
    rapidjson::Document doc;
    doc.Parse(bus.snapshot_json());
    ASSERT_FALSE(doc.HasParseError());
    EXPECT_EQ(doc["speed_hz"].GetUint(), 400'000u);
    EXPECT_EQ(doc["total"]["transactions"].GetUint64(), 3u);
    EXPECT_EQ(doc["total"]["bytes"].GetUint64(), 57u);
    EXPECT_EQ(doc["total"]["nacks"].GetUint64(), 1u);
    EXPECT_EQ(doc["total"]["wire_time_ns"].GetInt64(), 1'312'500 + 95'000 + 27'500);
    ASSERT_EQ(doc["cages"].Size(), 2u);
    EXPECT_STREQ(doc["cages"][1]["name"].GetString(), "cage-b");
    EXPECT_EQ(doc["cages"][1]["writes"].GetUint64(), 1u);
    EXPECT_TRUE(doc["cages"][0]["last_access_ns"].IsInt64());
}

}  // namespace
}  // namespace qsfpd::emu
