#include "qsfp_dd_acacia_1lane_device_handler.hpp"

std::string qsfp_dd_acacia_1lane_device_handler::get_page_advertisement() {
    // One media lane: the lane pages have one bank, and the page dump offers the pages such a
    // module has, laser capabilities included.
    {
        auto lock = lock_handler();
        clear_page_advertisement();
        add_page_advertisement(0x00, 0, "Administrative Information", "1 of 1");
        add_page_advertisement(0x01, 0, "Advertising", "1 of 1");
        add_page_advertisement(0x02, 0, "Thresholds Information", "1 of 1");
        add_page_advertisement(0x04, 0, "Laser Capabilities Advertising", "1 of 1");
        add_page_advertisement(0x10, 0, "Lane and Data Path Control", "1 of 1");
        add_page_advertisement(0x11, 0, "Lane and Data Path Status", "1 of 1");
        add_page_advertisement(0x12, 0, "Tuneable Laser Control and Status", "1 of 1");
    }
    return qsfp_dd_acacia_device_handler::get_page_advertisement();
}
