// A C++ host: connects every attached sensor through the connection helper,
// then, sensor by sensor, sets a shutter speed through the sensor object and
// summarises one averaged frame of filter data.
// Exit status: 0 on success, 1 when no sensor came up, 2 when a sensor failed.
#include <orb_base_exception.h>
#include <orb_device_interface_stm_usb_connection_helper.h>

#include <algorithm>
#include <cstdio>
#include <numeric>
#include <string>
#include <vector>

namespace {

constexpr int kShutterSpeed = 200;
constexpr int kFrameAverages = 10;

int summarise(orb_device_interface& sensor, int index, const std::string& id) {
    try {
        sensor.set_shutter_speed(kShutterSpeed, index);
        double exposure_ms = 0.0;
        sensor.shutter_to_exposure_time_ms(10, kShutterSpeed, &exposure_ms);
        std::vector<double> frame;
        sensor.get_filter_data(frame, kFrameAverages, 0, false, index, 0);
        const auto [lo, hi] = std::minmax_element(frame.begin(), frame.end());
        const double mean = std::accumulate(frame.begin(), frame.end(), 0.0) / frame.size();
        std::printf("sensor %d %s: shutter speed %d (%.0f ms), %d frames averaged: min %.2f, mean %.2f, max %.2f\n",
                    index, id.c_str(), kShutterSpeed, exposure_ms, kFrameAverages, *lo, mean, *hi);
        return 0;
    } catch (const orb_base_exception& e) {
        std::fprintf(stderr, "sensor %d failed: %s (code %d)\n", index, e.what(), static_cast<int>(e.error_code()));
        return 2;
    }
}

}  // namespace

int main() {
    orb_device_usb_connection_helper helper;
    const int connected = helper.connect_multiple_devices(true, 0);
    if (connected < 1) {
        std::fprintf(stderr, "no sensor found\n");
        return 1;
    }
    int result = 0;
    for (int index = 0; index < connected; index++) {
        std::string id;
        orb_device_interface* sensor = helper.get_one_device_interface(index, id);
        result = std::max(result, sensor ? summarise(*sensor, index, id) : 2);
    }
    helper.disconnect_multiple_devices(true, 0);
    return result;
}
