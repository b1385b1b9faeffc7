/* A C host built against the installed tree with pkg-config. */
#include <stdio.h>

#include <lusb.h>
#include <orb_error_codes.h>

int main(void) {
    usb_init();
    usb_find_busses();
    usb_find_devices();
    int busses = 0;
    for (struct usb_bus* bus = usb_get_busses(); bus; bus = bus->next) busses++;
    printf("busses: %d\n", busses);
    return busses >= 0 ? vn_ec_success - 1 : 1;
}
