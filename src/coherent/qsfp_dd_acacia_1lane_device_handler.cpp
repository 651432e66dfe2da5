#include "qsfp_dd_acacia_1lane_device_handler.hpp"

std::string qsfp_dd_acacia_1lane_device_handler::get_page_advertisement() {
    advertise_single_lane_pages(false);
    return qsfp_dd_acacia_device_handler::get_page_advertisement();
}
