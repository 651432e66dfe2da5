#pragma once

#include "qsfp_dd_cmis5_device_handler.hpp"

// The one-lane high-power CMIS 5 coherent module: the CMIS 5 handler, with the page dump offering
// the pages of a single media lane.
class qsfp_dd_cmis5_1lane_hpower_device_handler : public qsfp_dd_cmis5_device_handler {
  public:
    using qsfp_dd_cmis5_device_handler::qsfp_dd_cmis5_device_handler;

    void start();
    std::string get_page_advertisement() override;
};
