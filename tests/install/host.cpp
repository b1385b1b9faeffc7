// A C++ host built against the installed tree with find_package(orb_device).
#include <orb_base_exception.h>
#include <orb_device_interface_stm_usb.h>

#include <cstdio>

int main() {
    try {
        throw orb_base_exception(vn_ec_sensor_id_is_empty);
    } catch (const orb_base_exception& e) {
        std::printf("%s %u\n", e.what(), get_connected_total_devices());
        return e.m_error_code == vn_ec_sensor_id_is_empty ? 0 : 1;
    }
}
