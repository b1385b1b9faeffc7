#ifndef ORB_DEVICE_INTERFACE_STM_USB_CONNECTION_HELPER_H
#define ORB_DEVICE_INTERFACE_STM_USB_CONNECTION_HELPER_H

// Connecting sensors by index for hosts that use the classes directly. The
// registry (sensor objects, ID texts, connection status, all by sensor index)
// is shared by every helper object of the process; a new helper starts it
// afresh. Lookups insert a default entry for an index they do not know.

#include <map>
#include <string>

#include "orb_device_interface.h"
#include "orb_export.h"

typedef std::map<int, orb_device_interface*> PSpecDeviceMap2D;
typedef std::map<int, std::string> sensorIdMap;
typedef std::map<int, bool> SensorStatusMap2DForDevice;

class ORB_EXPORT orb_device_usb_connection_helper {
public:
    orb_device_usb_connection_helper();
    ~orb_device_usb_connection_helper();
    orb_device_usb_connection_helper(const orb_device_usb_connection_helper&) = delete;
    orb_device_usb_connection_helper& operator=(const orb_device_usb_connection_helper&) = delete;

    // With multi, indices 0, 1, ... until the first that fails; else deviceId
    // alone. The number connected.
    int connect_multiple_devices(bool multi, int deviceId);
    bool connect_device(int deviceId);
    bool disconnect_device(int deviceId);
    bool disconnect_multiple_devices(bool multi, int deviceId);

    void CreateSensorObject(int deviceId);
    void DestroySensorObject(int deviceId);

    bool is_sensor_connected(int deviceId);
    void set_sensor_connection_status(bool status, int deviceId);
    // By ID text when sensorId is given (the last index with that text wins),
    // else by index, telling the caller the index's ID text.
    orb_device_interface* get_one_device_interface(int deviceId, std::string& sensorId);
    // Always empty: ID texts come with get_one_device_interface.
    std::string get_sensor_id(int deviceId);
    int get_connected_device_number();

    static PSpecDeviceMap2D m_pSpecDevice;
    static sensorIdMap sidMap;
    static SensorStatusMap2DForDevice sensorConnectionStatus;

private:
    int numOfDevices;
};

#endif  // ORB_DEVICE_INTERFACE_STM_USB_CONNECTION_HELPER_H
