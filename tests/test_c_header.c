/* The public C-facing headers must compile as C. */
#include "lusb.h"
#include "lusbi.h"
#include "orb_error_codes.h"

int orb_c_header_check(void) {
    struct usb_bus* bus = usb_get_busses();
    return (bus == 0) ? vn_ec_success : LOG_LEVEL_ERROR;
}
