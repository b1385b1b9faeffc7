/* orb_colour.h must compile as C. */
#include <stddef.h>

#include "orb_colour.h"

int orb_colour_header_compiles_as_c(void) {
    orb_colorimetry c;
    double w[2] = {380.0, 780.0}, v[2] = {1.0, 1.0};
    return orb_colour_compute(NULL, w, v, 2, &c);
}
