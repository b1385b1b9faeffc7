#include "orb_base_exception.h"

orb_base_exception::orb_base_exception(ORB_ERROR_CODE code) : m_error_code(code) {}

const char* orb_base_exception::what() const noexcept {
    // Code 0 is shared by vn_ec_start_code and vn_ec_undefined_fail; as a
    // thrown code it can only mean the latter.
    switch (m_error_code) {
    case vn_ec_fail: return "vn_ec_fail";
    case vn_ec_undefined_fail: return "vn_ec_undefined_fail";
    case vn_ec_success: return "vn_ec_success";
    case vn_ec_memory_is_null: return "vn_ec_memory_is_null";
    case vn_ec_no_device_in_system: return "vn_ec_no_device_in_system";
    case vn_ec_fail_to_connect_device: return "vn_ec_fail_to_connect_device";
    case vn_ec_fail_to_create_device_obj: return "vn_ec_fail_to_create_device_obj";
    case vn_ec_fail_to_initialize_device: return "vn_ec_fail_to_initialize_device";
    case vn_ec_device_object_is_null: return "vn_ec_device_object_is_null";
    case vn_ec_sensor_id_is_empty: return "vn_ec_sensor_id_is_empty";
    case vn_ec_fw_recv_timeout: return "vn_ec_fw_recv_timeout";
    case vn_ec_fail_to_create_core_spectrum_obj: return "vn_ec_fail_to_create_core_spectrum_obj";
    case vn_ec_fail_to_initialize_core_spectrum_obj: return "vn_ec_fail_to_initialize_core_spectrum_obj";
    case vn_ec_fail_to_load_sensor_cal_data: return "vn_ec_fail_to_load_sensor_cal_data";
    case vn_ec_fail_to_add_sensor_to_active_sensor_list: return "vn_ec_fail_to_add_sensor_to_active_sensor_list";
    case vn_ec_sensor_cal_data_is_null: return "vn_ec_sensor_cal_data_is_null";
    case vn_ec_sensor_cal_for_input_sensor_id_is_not_valid: return "vn_ec_sensor_cal_for_input_sensor_id_is_not_valid";
    case vn_ec_spectrum_core_object_is_null: return "vn_ec_spectrum_core_object_is_null";
    case vn_ec_memory_for_spectrum_data_buffer_is_null: return "vn_ec_memory_for_spectrum_data_buffer_is_null";
    case vn_ec_memory_for_wavelength_data_buffer_is_null: return "vn_ec_memory_for_wavelength_data_buffer_is_null";
    case vn_ec_filter_buffer_is_null: return "vn_ec_filter_buffer_is_null";
    case vn_ec_filter_data_is_nan: return "vn_ec_filter_data_is_nan";
    case vn_ec_background_buffer_is_null: return "vn_ec_background_buffer_is_null";
    case vn_ec_fail_to_calculate_spectrum: return "vn_ec_fail_to_calculate_spectrum";
    case vn_ec_wrong_reply: return "vn_ec_wrong_reply";
    case vn_ec_ill_defined_input: return "vn_ec_ill_defined_input";
    case vn_ec_ill_defined_output: return "vn_ec_ill_defined_output";
    case vn_ec_initialization_required: return "vn_ec_initialization_required";
    case vn_ec_file_open_failed: return "vn_ec_file_open_failed";
    case vn_ec_weights_matrix_allocation_fail: return "vn_ec_weights_matrix_allocation_fail";
    case vn_ec_fail_to_create_color_object: return "vn_ec_fail_to_create_color_object";
    case vn_ec_fail_to_initialize_color_object: return "vn_ec_fail_to_initialize_color_object";
    case vn_ec_color_object_is_null: return "vn_ec_color_object_is_null";
    case vn_ec_end_code: return "vn_ec_end_code";
    }
    // A lower layer may pass any status upward unchanged.
    return "vn_ec_unknown_code";
}
