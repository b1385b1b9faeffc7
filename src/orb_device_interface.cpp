// The host's handle on one sensor: brings up the sensor's base object and
// hands it nearly every request.

#include "orb_device_interface.h"

#include <algorithm>
#include <cstdio>

#include "orb_base_exception.h"
#include "orb_guarded_call.h"

namespace {

// The auto-exposure search aims just below this; brighter targets would let
// the brightest filter clip before the search sees it.
constexpr int kMaxSaturationDN = 4000;

}  // namespace

orb_device_interface::orb_device_interface() {}

// The base is left alive on purpose: the sensor it stands for is released by
// finalize(), and deleting the base would close sensor 0 whatever this was.
orb_device_interface::~orb_device_interface() {}

int orb_device_interface::initialize(unsigned int iDeviceId) {
    // Every base is built for index 0; initialize() selects the real sensor.
    m_device_interface_base = new orb_device_interface_base(0);
    m_interface_is_initialized = m_device_interface_base->initialize(iDeviceId) == 1;
    return m_interface_is_initialized ? 1 : -1;
}

void orb_device_interface::initialize() { initialize(0u); }

void orb_device_interface::finalize(unsigned int iDeviceId) { m_device_interface_base->finalize(iDeviceId); }

// A facade that never ran initialize() has no base to ask: not in service.
bool orb_device_interface::is_initialized(unsigned int iDeviceId) {
    if (m_device_interface_base == nullptr) return false;
    return m_device_interface_base->is_initialized(iDeviceId) && m_interface_is_initialized;
}

int orb_device_interface::reconnect_device(unsigned int& iDeviceId, std::string dark_data_file, libusb_device* pDev,
                                           libusb_context* lctx, bool detach) {
    if (!detach) m_device_interface_base->reconnect_device(iDeviceId, dark_data_file, pDev, lctx, detach);
    return 1;
}

bool orb_device_interface::test_device(unsigned int iDeviceId) {
    bool bSensorBoardOk = false;
    bool bControllerBoardOk = false;
    m_device_interface_base->test_device(bSensorBoardOk, bControllerBoardOk, iDeviceId);
    return bSensorBoardOk && bControllerBoardOk;
}

double orb_device_interface::get_start_lambda() { return 340.0; }
double orb_device_interface::get_end_lambda() { return 1100.0; }
double orb_device_interface::get_interval() { return 5.0; }
int orb_device_interface::get_resolution() { return 1; }
int orb_device_interface::get_min_shutter_speed(unsigned int /*iDeviceId*/) { return 1; }
int orb_device_interface::get_max_shutter_speed(unsigned int /*iDeviceId*/) { return 500000; }

void orb_device_interface::enable_spatial_filtering(bool bEnable, int iSize, unsigned int iDeviceId) {
    if (is_initialized(iDeviceId)) m_device_interface_base->enable_spatial_filtering(bEnable, iSize, iDeviceId);
}

void orb_device_interface::enable_frame_moving_average(bool bEnable, unsigned int iDeviceId) {
    if (is_initialized(iDeviceId)) m_device_interface_base->enable_frame_moving_average(bEnable, iDeviceId);
}

int orb_device_interface::find_optimal_shutter_speed(std::vector<int>& valid_filter_list,
                                                     std::vector<double>& background_data, int saturation_value,
                                                     int sleep_time, unsigned int iDeviceId) {
    return m_device_interface_base->find_optimal_shutter_speed(
        valid_filter_list, background_data, std::min(saturation_value, kMaxSaturationDN), sleep_time, iDeviceId);
}

void orb_device_interface::set_auto_exposure_parameters(int target_DN, unsigned int iDeviceId) {
    m_device_interface_base->set_auto_exposure_parameters(target_DN, iDeviceId);
}

void orb_device_interface::set_auto_exposure_parameters(int target_DN, int upper_DN, int lower_DN, int mean_DN,
                                                        int max_integ_DN, unsigned int iDeviceId) {
    m_device_interface_base->set_auto_exposure_parameters(target_DN, upper_DN, lower_DN, mean_DN, max_integ_DN,
                                                          iDeviceId);
}

void orb_device_interface::set_frame_acquisition_conditions(SDataAcqCondition& AcqCond, int deviceId) {
    m_device_interface_base->set_frame_acquisition_conditions(AcqCond, deviceId);
}

double orb_device_interface::get_filter_data(std::vector<double>& filter_data, int average, int darkcorrectionMode,
                                             bool useAE, int deviceId, int useContAcq) {
    return m_device_interface_base->get_filter_data(filter_data, average, darkcorrectionMode, useAE, deviceId,
                                                    useContAcq);
}

double orb_device_interface::get_filter_data(double* filter_buffer, int for_num_averages, int dark_correction_mode,
                                             int useContAcq, unsigned int iDeviceId) {
    return m_device_interface_base->get_filter_data(filter_buffer, for_num_averages, dark_correction_mode,
                                                    useContAcq, iDeviceId);
}

int orb_device_interface::get_filter_data_2048(std::vector<char>& filter_data, int deviceId) {
    return m_device_interface_base->get_filter_data_2048(filter_data, deviceId);
}

void orb_device_interface::get_background_filter_data(double* filter_buffer, int frame_average, int iDeviceId) {
    m_device_interface_base->get_background_filter_data(filter_buffer, frame_average, iDeviceId);
}

double orb_device_interface::get_min_filter_out(unsigned int iDeviceId) {
    return m_device_interface_base->get_min_filter_out(iDeviceId);
}

double orb_device_interface::get_max_filter_out(unsigned int iDeviceId) {
    return m_device_interface_base->get_max_filter_out(iDeviceId);
}

int orb_device_interface::get_num_filters(unsigned int iDeviceId) {
    return m_device_interface_base->get_num_filters(iDeviceId);
}

std::vector<int> orb_device_interface::get_abnormal_filters(unsigned int iDeviceId) {
    return m_device_interface_base->get_abnormal_filters(iDeviceId);
}

void orb_device_interface::set_shutter_speed(int set_shutter, unsigned int iDeviceId) {
    m_device_interface_base->set_shutter_speed(set_shutter, iDeviceId);
}

int orb_device_interface::get_shutter_speed(unsigned int iDeviceId) {
    return m_device_interface_base->get_shutter_speed(iDeviceId);
}

int orb_device_interface::shutter_to_exposure_time_ms(int MCLK, int shutter, double* exposure_time_val) {
    return m_device_interface_base->shutter_to_exposure_time_ms(MCLK, shutter, exposure_time_val);
}

int orb_device_interface::exposure_tim_ms_to_shutter(int MCLK, double exposure_time_val, int* shutter) {
    return m_device_interface_base->exposure_tim_ms_to_shutter(MCLK, exposure_time_val, shutter);
}

void orb_device_interface::set_blank_time(int blank_time, unsigned int iDeviceId) {
    m_device_interface_base->set_blank_time(blank_time, iDeviceId);
}

int orb_device_interface::get_blank_time(unsigned int iDeviceId) {
    return m_device_interface_base->get_blank_time(iDeviceId);
}

void orb_device_interface::set_acq_mode(int acq_mode) { m_device_interface_base->set_acq_mode(acq_mode); }

void orb_device_interface::get_acq_mode(int* acq_mode) { m_device_interface_base->get_acq_mode(acq_mode); }

void orb_device_interface::get_sensor_id(char* sensor_id, unsigned int iDeviceId) {
    m_device_interface_base->get_sensor_id(sensor_id, iDeviceId);
}

void orb_device_interface::get_sensor_id(char* lot_char, short* lot_id, short* wafer_id, short* x_coord,
                                         short* y_coord, short* sensor_type, unsigned int iDeviceId) {
    if (m_device_interface_base == nullptr) {
        puts("##### m_device_interface_base is NULL!!");
        return;
    }
    m_device_interface_base->get_sensor_id(lot_char, lot_id, wafer_id, x_coord, y_coord, sensor_type, iDeviceId);
}

std::string orb_device_interface::get_sensor_id(unsigned int iDeviceId) {
    return m_device_interface_base->get_sensor_id(iDeviceId);
}

std::string orb_device_interface::decode_sensor_id(char* sensor_id, unsigned int iDeviceId) {
    return m_device_interface_base->decode_sensor_id(sensor_id, iDeviceId);
}

int orb_device_interface::get_adc_range(unsigned int iDeviceId) {
    return m_device_interface_base->get_adc_range(iDeviceId);
}

void orb_device_interface::set_adc_settings(unsigned char adc_range_index, unsigned char gain) {
    m_device_interface_base->set_adc_settings(adc_range_index, gain, 0, 0);
}

void orb_device_interface::set_adc_settings(unsigned char adc_range_index, unsigned char gain, unsigned char res,
                                            unsigned int iDeviceId) {
    m_device_interface_base->set_adc_settings(adc_range_index, gain, res, iDeviceId);
}

void orb_device_interface::get_adcsettings(unsigned char* adc_range_index, unsigned char* gain, unsigned char* res,
                                           unsigned int iDeviceId) {
    m_device_interface_base->get_adcsettings(adc_range_index, gain, res, iDeviceId);
}

int orb_device_interface::set_onboard_frame_average(unsigned char average_count, unsigned int device_id) {
    return guarded_call([&] {
        m_device_interface_base->set_onboard_frame_average(average_count, device_id);
        return 1;
    });
}

int orb_device_interface::get_onboard_frame_average(unsigned int device_id) {
    return guarded_call([&] {
        return static_cast<unsigned char>(m_device_interface_base->get_onboard_frame_average(device_id));
    });
}

int orb_device_interface::set_onboard_dark_correction(bool bEnable, unsigned int device_id) {
    return guarded_call([&] {
        return m_device_interface_base->set_onboard_dark_correction(bEnable, device_id);
    });
}

int orb_device_interface::get_onboard_dark_correction(unsigned int device_id) {
    return guarded_call([&] {
        return m_device_interface_base->get_onboard_dark_correction(device_id);
    });
}

int orb_device_interface::get_onboard_dark_frame(unsigned int device_id) {
    return guarded_call([&] {
        return m_device_interface_base->get_onboard_dark_frame(device_id);
    });
}

int orb_device_interface::get_poi_info(std::vector<int>& poi, unsigned int iDeviceId) {
    return guarded_call([&] {
        return m_device_interface_base->get_poi_info(poi, iDeviceId);
    });
}

int orb_device_interface::set_poi_info(std::vector<int>& poi, unsigned int iDeviceId) {
    return guarded_call([&] {
        return m_device_interface_base->set_poi_info(poi, iDeviceId);
    });
}

int orb_device_interface::get_poi_filter_data(std::vector<int>& poi_filter_buffer, int poi_size,
                                              std::vector<double>& poi_background, unsigned int iDeviceId) {
    return guarded_call([&] {
        return m_device_interface_base->get_poi_filter_data(poi_filter_buffer, poi_size, poi_background, iDeviceId);
    });
}

void orb_device_interface::set_led_module_op_mode(int op_mode, unsigned int iDeviceId) {
    m_device_interface_base->set_led_module_op_mode(op_mode, iDeviceId);
}

bool orb_device_interface::set_led_state(bool* on_array, int num_LED, int intensity, unsigned int iDeviceId) {
    return m_device_interface_base->set_led_state(on_array, num_LED, intensity, iDeviceId);
}

bool orb_device_interface::set_led_opmode(int iOpMode, int iToggleIntervalTime, unsigned int iDeviceId) {
    return m_device_interface_base->set_led_opmode(iOpMode, iToggleIntervalTime, iDeviceId);
}

int orb_device_interface::leddriver_isopen() { return m_device_interface_base->leddriver_isopen(); }

int orb_device_interface::leddriver_close() { return m_device_interface_base->leddriver_close(); }

int orb_device_interface::leddriver_set_led_state(bool* on_array, int num_LED, int intensity) {
    if (intensity == 0) return m_device_interface_base->leddriver_turn_off_all();
    return m_device_interface_base->leddriver_set_led_state(on_array, num_LED, intensity);
}

int orb_device_interface::leddriver_turn_off_all() { return m_device_interface_base->leddriver_turn_off_all(); }

void orb_device_interface::activate_device(unsigned int deviceid) {
    m_device_interface_base->activate_device(deviceid);
}

unsigned int orb_device_interface::get_total_devices() { return m_device_interface_base->get_total_devices(); }
