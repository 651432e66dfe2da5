#include "qsfpd_options.hpp"

#include <gtest/gtest.h>

#include <sstream>

namespace {

std::optional<qsfpd::daemon_options> parse(std::vector<const char*> args,
                                           std::string* printed = nullptr) {
    args.insert(args.begin(), "qsfpd");
    std::ostringstream out;
    auto result = qsfpd::parse_command_line(static_cast<int>(args.size()), args.data(), out);
    if (printed) *printed = out.str();
    return result;
}

TEST(QsfpdOptions, Defaults) {
    auto o = parse({});
    ASSERT_TRUE(o);
    EXPECT_EQ(o->device_path, "/dev/qsfp");
    EXPECT_EQ(o->server_name, "/tmp/device_handlers/qsfp");
    EXPECT_EQ(o->port, 2500u);
    EXPECT_EQ(o->num_units, 0u);
    EXPECT_EQ(o->unit, 99u);
}

TEST(QsfpdOptions, UnitIsAppendedWithoutSeparator) {
    struct row {
        std::vector<const char*> args;
        const char* device;
        const char* server;
    };
    const row rows[] = {
        {{"-u", "0"}, "/dev/qsfp0", "/tmp/device_handlers/qsfp/0"},
        {{"--unit", "3", "-n", "8"}, "/dev/qsfp3", "/tmp/device_handlers/qsfp/3"},
        {{"-u", "99"}, "/dev/qsfp", "/tmp/device_handlers/qsfp"},
        {{"-d", "/dev/x", "-u", "2"}, "/dev/x2", "/tmp/device_handlers/qsfp/2"},
        {{"--device_path=/tmp/qsfp-emu/qsfp", "--unit=7"},
         "/tmp/qsfp-emu/qsfp7",
         "/tmp/device_handlers/qsfp/7"},
    };
    for (const auto& r : rows) {
        auto o = parse(r.args);
        ASSERT_TRUE(o);
        EXPECT_EQ(o->device_path, r.device);
        EXPECT_EQ(o->server_name, r.server);
    }
    EXPECT_EQ(parse({"-u", "3", "-n", "8", "-p", "2503"})->port, 2503u);
}

TEST(QsfpdOptions, HelpAndBadInputPrintTheDescription) {
    std::string printed;
    EXPECT_FALSE(parse({"--help", "-u", "3"}, &printed));
    EXPECT_EQ(printed.rfind("Available options:\n", 0), 0u);
    EXPECT_NE(printed.find("  --help                                Print help message\n"),
              std::string::npos);
    EXPECT_NE(printed.find("-d [ --device_path ] arg (=/dev/qsfp) path to qsfp device file"),
              std::string::npos);
    EXPECT_EQ(printed.back(), '\n');
    const std::string help = printed;
    for (std::vector<const char*> bad : {std::vector<const char*>{"--bogus"},
                                         {"-u", "three"},
                                         {"-p", "-1"},
                                         {"-u"},
                                         {"extra"},
                                         {"-p", "70000"}}) {
        EXPECT_FALSE(parse(bad, &printed));
        EXPECT_EQ(printed, help);
    }
}

}  // namespace
