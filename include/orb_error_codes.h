#ifndef ORB_ERROR_CODES_H
#define ORB_ERROR_CODES_H

/* Status codes of the device library. 1 is success; every exported entry
 * point reports a failure as minus one of these. The values are fixed: hosts
 * compare against the numbers, so codes for objects this library does not
 * have (spectrum core, calibration, colour) keep their places. */
/* In C++ the enumeration is int-based, so that a status outside the list
 * (an errno from libusb, say) is still a value of this type. */
#ifdef __cplusplus
#define ORB_ERROR_CODE_BASE : int
#else
#define ORB_ERROR_CODE_BASE
#endif
typedef enum ORB_ERROR_CODE ORB_ERROR_CODE_BASE {
    vn_ec_start_code = 0,
    vn_ec_fail = -1,
    vn_ec_undefined_fail = 0,
    vn_ec_success = 1,
    vn_ec_memory_is_null = 2,
    vn_ec_no_device_in_system = 3,
    vn_ec_fail_to_connect_device = 4,
    vn_ec_fail_to_create_device_obj = 5,
    vn_ec_fail_to_initialize_device = 6,
    vn_ec_device_object_is_null = 7,
    vn_ec_sensor_id_is_empty = 8,
    vn_ec_fw_recv_timeout = 9,
    vn_ec_fail_to_create_core_spectrum_obj = 10,
    vn_ec_fail_to_initialize_core_spectrum_obj = 11,
    vn_ec_fail_to_load_sensor_cal_data = 12,
    vn_ec_fail_to_add_sensor_to_active_sensor_list = 13,
    vn_ec_sensor_cal_data_is_null = 14,
    vn_ec_sensor_cal_for_input_sensor_id_is_not_valid = 15,
    vn_ec_spectrum_core_object_is_null = 16,
    vn_ec_memory_for_spectrum_data_buffer_is_null = 17,
    vn_ec_memory_for_wavelength_data_buffer_is_null = 18,
    vn_ec_filter_buffer_is_null = 19,
    vn_ec_filter_data_is_nan = 20,
    vn_ec_background_buffer_is_null = 21,
    vn_ec_fail_to_calculate_spectrum = 22,
    vn_ec_wrong_reply = 23,
    vn_ec_ill_defined_input = 24,
    vn_ec_ill_defined_output = 25,
    vn_ec_initialization_required = 26,
    vn_ec_file_open_failed = 27,
    vn_ec_weights_matrix_allocation_fail = 28,
    vn_ec_fail_to_create_color_object = 29,
    vn_ec_fail_to_initialize_color_object = 30,
    vn_ec_color_object_is_null = 31,
    vn_ec_end_code = 32
} ORB_ERROR_CODE;

#endif /* ORB_ERROR_CODES_H */
