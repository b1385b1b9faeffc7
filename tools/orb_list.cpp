// orb-list: finds every sensor on the USB buses and opens each one.

#include <cstdio>

#include "orb_device_interface_stm_usb.h"

int main() {
    unsigned int found = 0;
    while (connect_device(found) == 1) {
        bool claimed = UsbDevHandle::pDevH[found] != nullptr;
        std::printf("sensor %u: %s\n", found, claimed ? "open, interface claimed" : "opened, interface busy");
        found++;
    }
    std::printf("%u sensor(s) found\n", found);
    return found > 0 ? 0 : 1;
}
