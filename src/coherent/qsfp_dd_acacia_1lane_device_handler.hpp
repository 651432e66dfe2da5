#pragma once

#include "qsfp_dd_acacia_device_handler.hpp"

// The one-lane variant: the same handler, with the page dump offering the laser capabilities
// page of a single media lane.
class qsfp_dd_acacia_1lane_device_handler : public qsfp_dd_acacia_device_handler {
  public:
    using qsfp_dd_acacia_device_handler::qsfp_dd_acacia_device_handler;

    void start() { qsfp_dd_acacia_device_handler::start(); }
    std::string get_page_advertisement() override;
};
