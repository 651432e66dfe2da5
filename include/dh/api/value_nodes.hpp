#pragma once

// Every kind of value node a handler publishes.
#include "async_volatile_value.hpp"
#include "command.hpp"
#include "config_param.hpp"
#include "hysteresis_filtered_value.hpp"
#include "typed_event_node.hpp"
#include "value_group.hpp"
#include "volatile_value.hpp"
