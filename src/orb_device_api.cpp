// The C entry points: a table of up to ten connected sensors, one of them
// current, and every failure below turned into a printed line and a negative
// result, since no exception may cross into a host written in C or reached
// through a foreign-function interface.

#include "orb_device_api.h"

#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <new>
#include <string>
#include <vector>

#include "orb_base_exception.h"
#include "orb_device_interface.h"
#include "orb_error_codes.h"
#include "efm32com/orb_exposure.h"
#include "efm32com/orb_frame_samples.h"
#include "efm32com/orb_sensor_id_text.h"

namespace {

constexpr int kTableSize = 100;
constexpr int kMaxSensorCount = 10;
constexpr int kSensorIdSize = 26;

constexpr int kDefaultAdcRange = 132;
constexpr int kMaxAdcRange = 255;

// Auto-exposure: the peak the search aims just below, and the settling time
// in ms it allows the sensor after each shutter change.
constexpr int kSaturationDN = 3500;
constexpr int kSettleTimeMs = 10;

// The filters the auto-exposure search looks at when the host names none:
// 824 of the 1024, the array's edges and scattered single filters left out.
struct FilterRange {
    int first;
    int last;
};
constexpr FilterRange kValidFilterRanges[] = {
    {98, 99},    {101, 124}, {126, 127}, {130, 132}, {134, 155}, {157, 159}, {162, 191}, {194, 223}, {226, 231},
    {233, 248},  {250, 255}, {258, 287}, {290, 319}, {322, 351}, {354, 383}, {386, 415}, {418, 447}, {450, 479},
    {482, 495},  {497, 511}, {514, 528}, {530, 543}, {546, 575}, {578, 607}, {610, 639}, {642, 671}, {674, 703},
    {706, 735},  {738, 767}, {770, 775}, {777, 792}, {794, 799}, {802, 831}, {834, 863}, {866, 868}, {870, 891},
    {893, 895},  {898, 899}, {901, 924}, {926, 927}, {930, 959}, {963, 990},
};
constexpr int kNumValidFilters = 824;

constexpr int count_valid_filters() {
    int count = 0;
    for (const FilterRange& r : kValidFilterRanges) count += r.last - r.first + 1;
    return count;
}
static_assert(count_valid_filters() == kNumValidFilters, "the valid filter ranges must cover 824 filters");

constexpr std::array<int, kNumValidFilters> make_default_valid_filters() {
    std::array<int, kNumValidFilters> filters{};
    std::size_t n = 0;
    for (const FilterRange& r : kValidFilterRanges)
        for (int f = r.first; f <= r.last; f++) filters[n++] = f;
    return filters;
}
constexpr std::array<int, kNumValidFilters> kDefaultValidFilters = make_default_valid_filters();

}  // namespace

orb_device_interface* g_pDeviceInterface[kTableSize] = {};
int g_current_device_index = 0;
int g_total_num_of_sensors = 0;

namespace {

// After a failure while connecting or disconnecting the table is emptied but
// the count kept, so later calls must expect counted slots to be null.
void clean_up_table() {
    for (int i = 0; i < g_total_num_of_sensors; i++) {
        delete g_pDeviceInterface[i];
        g_pDeviceInterface[i] = nullptr;
    }
}

// Runs one request for the host: an exception becomes its line on standard
// output and minus its code, or -1 when it is not the library's own.
template <typename Body>
int guarded(Body&& body, void (*before_report)() = nullptr) {
    try {
        return body();
    } catch (const orb_base_exception& e) {
        if (before_report) before_report();
        printf("[orb_device_api] ORB_BASE_EXCEPTION happened: %s\n", e.what());
        return -static_cast<int>(e.m_error_code);
    } catch (...) {
        if (before_report) before_report();
        puts("[orb_device_api] std::exception happed !!");
        return -1;
    }
}

// The current sensor, or null when there is none to talk to: before the first
// duConnect, after one that found nothing (index -1), after duDisconnect.
orb_device_interface* current_sensor() {
    if (g_current_device_index < 0 || g_current_device_index >= kTableSize) return nullptr;
    return g_pDeviceInterface[g_current_device_index];
}

unsigned int current_index() { return static_cast<unsigned int>(g_current_device_index); }

struct SensorIdText {
    char text[kSensorIdSize];
};

// The ID text of one sensor, always terminated within its 26 bytes: parts
// out of their usual ranges are cut short rather than overrunning.
SensorIdText id_text_of(orb_device_interface& sensor, unsigned int index) {
    char lot_char = 0;
    short lot_id = 0, wafer_id = 0, x_coord = 0, y_coord = 0, sensor_type = 0;
    sensor.get_sensor_id(&lot_char, &lot_id, &wafer_id, &x_coord, &y_coord, &sensor_type, index);
    SensorIdText id = {};
    sensor_id_text(lot_char, lot_id, wafer_id, x_coord, y_coord, sensor_type).copy(id.text, kSensorIdSize - 1);
    return id;
}

int optimal_shutter_speed(const int* valid_filters_in, int num_of_valid_filters, int saturation_value) {
    orb_device_interface* sensor = current_sensor();
    if (!sensor) return -1;
    return guarded([&] {
        std::vector<double> background_data(orbframe::kSamples, 0.0);
        std::vector<int> valid_filter_list;
        // A negative count copies nothing; the search then looks at every filter.
        if (valid_filters_in)
            valid_filter_list.assign(valid_filters_in, valid_filters_in + std::max(num_of_valid_filters, 0));
        else
            valid_filter_list.assign(kDefaultValidFilters.begin(), kDefaultValidFilters.end());
        sensor->set_auto_exposure_parameters(saturation_value, current_index());
        return sensor->find_optimal_shutter_speed(valid_filter_list, background_data, saturation_value,
                                                  kSettleTimeMs, current_index());
    });
}

}  // namespace

int duConnect(void) {
    return guarded(
        [] {
            if (g_total_num_of_sensors > 0) duDisconnect();
            g_total_num_of_sensors = 0;
            const int max_sensor_count = duGetMaxSensorCount();
            for (int index = 0; index < max_sensor_count; index++) {
                // A sensor that failed to come up in an earlier scan left its object here.
                delete g_pDeviceInterface[index];
                g_pDeviceInterface[index] = new (std::nothrow) orb_device_interface;
                if (!g_pDeviceInterface[index]) break;
                // The first sensor that does not come up ends the scan; its
                // object stays in the slot, uncounted.
                if (g_pDeviceInterface[index]->initialize(static_cast<unsigned int>(index)) < 0) break;
                g_total_num_of_sensors++;
            }
            if (g_total_num_of_sensors != 0) {
                g_current_device_index = 0;
                printf("**** [orb_device_api] Total number of sensors: %d\n", g_total_num_of_sensors);
                return g_total_num_of_sensors;
            }
            g_current_device_index = -1;
            return -1;
        },
        clean_up_table);
}

int duDisconnect(void) {
    return guarded(
        [] {
            for (int i = 0; i < g_total_num_of_sensors; i++) {
                // Null only when a failed connect or disconnect emptied the table.
                if (g_pDeviceInterface[i]) {
                    g_pDeviceInterface[i]->finalize(static_cast<unsigned int>(i));
                    delete g_pDeviceInterface[i];
                }
                g_pDeviceInterface[i] = nullptr;
            }
            g_total_num_of_sensors = 0;
            puts("Sensor is disconnected.");
            return 1;
        },
        clean_up_table);
}

char** duGetSensorList(void) {
    char** list = nullptr;
    int allocated = 0;
    bool complete = false;
    guarded([&] {
        const int total_num_of_sensors = g_total_num_of_sensors;
        list = static_cast<char**>(malloc(sizeof(char*) * static_cast<std::size_t>(total_num_of_sensors)));
        if (!list) throw orb_base_exception(vn_ec_memory_is_null);
        for (int i = 0; i < total_num_of_sensors; i++) {
            if (!g_pDeviceInterface[i]) throw orb_base_exception(vn_ec_device_object_is_null);
            // Staged in a zeroed buffer: the string may be shorter than the
            // 26 bytes handed out, and a longer one keeps its terminator.
            char id[kSensorIdSize] = {};
            g_pDeviceInterface[i]->get_sensor_id(static_cast<unsigned int>(i)).copy(id, kSensorIdSize - 1);
            list[i] = static_cast<char*>(malloc(kSensorIdSize));
            if (!list[i]) throw orb_base_exception(vn_ec_memory_is_null);
            allocated++;
            memcpy(list[i], id, kSensorIdSize);
        }
        printf("[orb_device_api] Total sensors in your system = %d).\n", total_num_of_sensors);
        for (int i = 0; i < total_num_of_sensors; i++) printf("[orb_device_api] Sensor ID: %s\n", list[i]);
        complete = true;
        return 1;
    });
    if (complete) return list;
    // The host gets nothing, so it can free nothing: release the partial list here.
    if (list)
        for (int i = 0; i < allocated; i++) free(list[i]);
    free(list);
    return nullptr;
}

int duGetMaxSensorCount(void) { return kMaxSensorCount; }

int duActivateSensorWithIndex(int sensor_index) {
    if (sensor_index < 0)
        g_current_device_index = 0;
    else if (sensor_index < g_total_num_of_sensors)
        g_current_device_index = sensor_index;
    else
        g_current_device_index = g_total_num_of_sensors - 1;
    return 1;
}

int duActivateSensorWithID(char* sensor_id_str) {
    return guarded([&] {
        if (!sensor_id_str) throw orb_base_exception(vn_ec_sensor_id_is_empty);
        for (int sensor_index = 0; sensor_index < g_total_num_of_sensors; sensor_index++) {
            orb_device_interface* sensor = g_pDeviceInterface[sensor_index];
            if (!sensor) continue;
            if (strcmp(id_text_of(*sensor, static_cast<unsigned int>(sensor_index)).text, sensor_id_str) == 0) {
                g_current_device_index = sensor_index;
                return sensor_index;
            }
        }
        return -1;
    });
}

int duGetTotalSensors(void) { return g_total_num_of_sensors; }

int duGetSensorID(char* sensor_id) {
    return guarded([&] {
        if (!sensor_id) throw orb_base_exception(vn_ec_memory_is_null);
        orb_device_interface* sensor = current_sensor();
        if (!sensor) return -1;
        memcpy(sensor_id, id_text_of(*sensor, current_index()).text, kSensorIdSize);
        return 1;
    });
}

int duGetShutterSpeed(void) {
    orb_device_interface* sensor = current_sensor();
    if (!sensor) return -1;
    return guarded([&] { return sensor->get_shutter_speed(current_index()); });
}

int duGetShutterSpeedLimits(int* min_limit, int* max_limit) {
    if (!min_limit || !max_limit) return -1;
    *min_limit = kMinShutterSpeed;
    *max_limit = kMaxShutterSpeed;
    return 1;
}

int duShutterSpeedToExposureTime(int master_clock, int shutter_speed, double* exposure_time_val) {
    orb_device_interface* sensor = current_sensor();
    // The conversion divides by the clock times 1000, held in an int: refused
    // only when that is 0 or does not fit. A negative clock converts like any other.
    if (!sensor || !exposure_time_val || master_clock == 0 || master_clock > INT_MAX / 1000 ||
        master_clock < INT_MIN / 1000)
        return -1;
    return guarded(
        [&] { return sensor->shutter_to_exposure_time_ms(master_clock, shutter_speed, exposure_time_val); });
}

int duExposureTimeToShutterSpeed(int master_clock, double exposure_time_val, int* shutter_speed) {
    orb_device_interface* sensor = current_sensor();
    if (!sensor || !shutter_speed) return -1;
    return guarded([&] { return sensor->exposure_tim_ms_to_shutter(master_clock, exposure_time_val, shutter_speed); });
}

int duSetShutterSpeed(int shutter) {
    if (shutter < kMinShutterSpeed) shutter = kMinShutterSpeed;
    if (shutter > kMaxShutterSpeed) shutter = kMaxShutterSpeed;
    orb_device_interface* sensor = current_sensor();
    if (!sensor) return -1;
    return guarded([&] {
        sensor->set_shutter_speed(shutter, current_index());
        return 1;
    });
}

int duGetOptimalShutterSpeed(int* valid_filters_in, int num_of_valid_filters) {
    return optimal_shutter_speed(valid_filters_in, num_of_valid_filters, kSaturationDN);
}

int duGetOptimalShutterSpeed2(int* valid_filters_in, int num_of_valid_filters, int target_DN) {
    return optimal_shutter_speed(valid_filters_in, num_of_valid_filters, target_DN);
}

int duGetFilterData(double* output, int number_of_averages) {
    orb_device_interface* sensor = current_sensor();
    // Fewer than one frame would have the acquisition wait for ever.
    if (!sensor || !output || number_of_averages < 1) return -1;
    return guarded([&] {
        sensor->get_filter_data(output, number_of_averages, 0, 0, current_index());
        return 1;
    });
}

int duSetSensorParameters(int _adc_gain, int _adc_range) {
    const int adc_gain = (_adc_gain < 0 || _adc_gain > 1) ? 0 : _adc_gain;
    const int adc_range = (_adc_range < 0 || _adc_range > kMaxAdcRange) ? kDefaultAdcRange : _adc_range;
    const int adc_res = 0;
    orb_device_interface* sensor = current_sensor();
    if (!sensor) return -1;
    return guarded([&] {
        sensor->set_adc_settings(static_cast<unsigned char>(adc_range), static_cast<unsigned char>(adc_gain),
                                 static_cast<unsigned char>(adc_res), current_index());
        return 1;
    });
}

int duGetSensorParameters(int* _adc_gain, int* _adc_range) {
    orb_device_interface* sensor = current_sensor();
    if (!sensor || !_adc_gain || !_adc_range) return -1;
    return guarded([&] {
        unsigned char range = 0, gain = 0, res = 0;
        sensor->get_adcsettings(&range, &gain, &res, current_index());
        *_adc_range = range;
        *_adc_gain = gain;
        return 1;
    });
}
