// Connecting sensors by index and finding their objects again by index or by
// ID text. Every lookup goes through the maps' subscript, so asking about an
// index the registry does not know leaves a default entry for it.

#include "orb_device_interface_stm_usb_connection_helper.h"

#include <cstdio>

#include "orb_base_exception.h"
#include "efm32com/orb_sensor_id_text.h"

PSpecDeviceMap2D orb_device_usb_connection_helper::m_pSpecDevice;
sensorIdMap orb_device_usb_connection_helper::sidMap;
SensorStatusMap2DForDevice orb_device_usb_connection_helper::sensorConnectionStatus;

namespace {

// A multiple scan tries at most this many sensor indices.
constexpr int kMaxSensorIndex = 99;

// What connecting puts into every sensor: ADC range index 132, gain 1,
// resolution 0.
constexpr unsigned char kAdcRangeIndex = 132;
constexpr unsigned char kAdcGain = 1;
constexpr unsigned char kAdcResolution = 0;

std::string read_sensor_id_text(orb_device_interface* device, int deviceId) {
    char lot_char = 0;
    short lot_id = 0, wafer_id = 0, x_coord = 0, y_coord = 0, sensor_type = 0;
    device->get_sensor_id(&lot_char, &lot_id, &wafer_id, &x_coord, &y_coord, &sensor_type,
                          static_cast<unsigned int>(deviceId));
    return sensor_id_text(lot_char, lot_id, wafer_id, x_coord, y_coord, sensor_type);
}

}  // namespace

// The objects a previous helper left in the registry are not freed: their
// sensors may still be in use through pointers the host holds.
orb_device_usb_connection_helper::orb_device_usb_connection_helper() : numOfDevices(0) {
    m_pSpecDevice.clear();
    sidMap.clear();
    sensorConnectionStatus.clear();
}

orb_device_usb_connection_helper::~orb_device_usb_connection_helper() {
    for (int i = 0; i < numOfDevices; ++i) DestroySensorObject(i);
}

int orb_device_usb_connection_helper::connect_multiple_devices(bool multi, int deviceId) {
    numOfDevices = 0;
    sidMap.clear();
    if (!multi) {
        if (connect_device(deviceId)) ++numOfDevices;
        return numOfDevices;
    }
    // Sensors are numbered in bus order, so the first index that does not
    // come up is the end of the sensors present.
    for (int loopCnt = 0; loopCnt <= kMaxSensorIndex; ++loopCnt) {
        if (!connect_device(loopCnt)) break;
        ++numOfDevices;
    }
    return numOfDevices;
}

bool orb_device_usb_connection_helper::connect_device(int deviceId) {
    if (!sensorConnectionStatus.empty() && is_sensor_connected(deviceId)) {
        puts(">>>>>>>>>>>>>>>> Sensor device is already connected!!");
        return false;
    }

    const unsigned int index = static_cast<unsigned int>(deviceId);
    try {
        try {
            CreateSensorObject(deviceId);
            // The sensor's dark data map (darkdatamap.bin) is not read when connecting.
            orb_device_interface* device = m_pSpecDevice[deviceId];
            const int result = device->initialize(index);
            // Read before the result is looked at: a sensor that did not come
            // up refuses the read, which ends the connection just the same.
            const std::string s = read_sensor_id_text(device, deviceId);
            if (result == -1 || !device->is_initialized(index)) {
                DestroySensorObject(deviceId);
                return false;
            }

            set_sensor_connection_status(true, deviceId);
            sidMap[deviceId] = s;
            device->enable_spatial_filtering(false, 0, index);
            device->set_adc_settings(kAdcRangeIndex, kAdcGain, kAdcResolution, index);
            return true;
        } catch (const orb_base_exception&) {
            DestroySensorObject(deviceId);
            return false;
        }
    } catch (const orb_base_exception& e) {
        printf("Exception, error: %d\n", e.m_error_code);
        DestroySensorObject(deviceId);
        return false;
    }
}

bool orb_device_usb_connection_helper::disconnect_device(int deviceId) {
    try {
        orb_device_interface* device = m_pSpecDevice[deviceId];
        if (device != nullptr) device->finalize(static_cast<unsigned int>(deviceId));
        DestroySensorObject(deviceId);
    } catch (...) {
        puts("[Exception] Fail to disconnect device !");
        return false;
    }
    set_sensor_connection_status(false, deviceId);
    return true;
}

bool orb_device_usb_connection_helper::disconnect_multiple_devices(bool multi, int deviceId) {
    bool result = false;
    if (multi) {
        // Indices 0..n-1, not the registry's keys: sensors are numbered from
        // 0 without gaps. Only the last index's outcome counts.
        const int n = static_cast<int>(m_pSpecDevice.size());
        for (int i = 0; i < n; ++i) result = disconnect_device(i);
    } else {
        result = disconnect_device(deviceId);
    }
    if (!result) return false;
    numOfDevices = 0;
    sidMap.clear();
    return true;
}

void orb_device_usb_connection_helper::CreateSensorObject(int deviceId) {
    orb_device_interface*& device = m_pSpecDevice[deviceId];
    if (device == nullptr) device = new orb_device_interface();
}

void orb_device_usb_connection_helper::DestroySensorObject(int deviceId) {
    orb_device_interface* device = m_pSpecDevice[deviceId];
    if (device == nullptr) return;
    delete device;
    m_pSpecDevice.erase(deviceId);
}

bool orb_device_usb_connection_helper::is_sensor_connected(int deviceId) { return sensorConnectionStatus[deviceId]; }

void orb_device_usb_connection_helper::set_sensor_connection_status(bool status, int deviceId) {
    sensorConnectionStatus[deviceId] = status;
}

orb_device_interface* orb_device_usb_connection_helper::get_one_device_interface(int deviceId,
                                                                                 std::string& sensorId) {
    if (sensorId.empty()) {
        sensorId = sidMap[deviceId];
        return m_pSpecDevice[deviceId];
    }
    int foundId = -1;
    for (const auto& entry : sidMap)
        if (entry.second == sensorId) foundId = entry.first;
    if (foundId != -1) deviceId = foundId;
    return m_pSpecDevice[deviceId];
}

std::string orb_device_usb_connection_helper::get_sensor_id(int /*deviceId*/) { return std::string(); }

int orb_device_usb_connection_helper::get_connected_device_number() { return numOfDevices; }
