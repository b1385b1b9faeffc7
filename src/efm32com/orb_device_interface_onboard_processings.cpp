// Processing on the sensor's controller.

#include "orb_device_interface_onboard_processings.h"

#include "orb_device_interface_stm.h"
#include "orb_error_codes.h"
#include "orb_stm_commands.h"

void set_frame_average_count_for_on_board_processing(unsigned char ucData, unsigned int iDeviceId) {
    do_control_transfer(kWrFrameAverage, ucData, iDeviceId);
    pause_ms(kFrameAveragePauseMs);
}

unsigned char get_frame_average_count_for_on_board_processing(unsigned int iDeviceId) {
    unsigned char count = do_control_transfer(kRdFrameAverage, 0, iDeviceId);
    pause_ms(kFrameAveragePauseMs);
    return count;
}

// The firmware has no dark correction and no regions of interest yet: these
// accept their arguments, send nothing and leave the caller's data alone.

int set_dark_correction_mode_for_on_board_processing(bool, unsigned int) { return vn_ec_success; }

bool get_dark_correction_mode_for_on_board_processing(unsigned int) { return false; }

int get_dark_frame_for_on_board_processing(unsigned int) { return vn_ec_success; }

int get_roi_info_from_sensor(std::vector<int>&, int) { return vn_ec_success; }

int set_roi_info_to_sensor(std::vector<int>&, int) { return vn_ec_success; }

int get_roi_data_from_sensor(std::vector<int>&, int, std::vector<double>&, int) { return vn_ec_success; }

double acquire_sub_frame_data(int*, int, unsigned int) { return 0.0; }

int write_roi_info_to_fw(int, int, unsigned int) { return vn_ec_success; }

int read_roi_info_from_fw(int, int, unsigned int) { return 1; }

std::vector<int> get_roi_info_from_sensor(int, int, unsigned int) { return {}; }

int set_roi_info_to_sensor(int, std::vector<int>, unsigned int) { return vn_ec_success; }
