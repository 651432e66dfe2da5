#include <gtest/gtest.h>
#include "dh/api/value_nodes.hpp"
#include "device_handler_api.hpp"
#include "device_handler_client.hpp"
TEST(Build, Compiles) { dh_db db; EXPECT_EQ(db.size(), 0u); }
