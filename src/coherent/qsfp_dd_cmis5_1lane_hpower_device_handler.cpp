#include "qsfp_dd_cmis5_1lane_hpower_device_handler.hpp"

#include "msg_log.hpp"

void qsfp_dd_cmis5_1lane_hpower_device_handler::start() {
    MSG_LOG(msg_log::info, init_tag()) << "QSFP DD cmis5 1 lane device handler started";
    qsfp_dd_cmis5_device_handler::start();
}

std::string qsfp_dd_cmis5_1lane_hpower_device_handler::get_page_advertisement() {
    advertise_single_lane_pages(true);
    return qsfp_dd_cmis5_device_handler::get_page_advertisement();
}
