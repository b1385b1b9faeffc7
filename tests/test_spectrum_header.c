/* orb_spectrum.h must compile as C. */
#include <stddef.h>

#include "orb_spectrum.h"

int orb_spectrum_header_compiles_as_c(void) {
    double filters[ORB_SPECTRUM_FILTERS] = {0}, dark[ORB_SPECTRUM_FILTERS] = {0}, value[1];
    orb_spectrum_options options = {0.0, 1};
    orb_spectrum* spectrum = NULL;
    (void)options;
    (void)spectrum;
    return orb_spectrum_apply(NULL, filters, dark, 1.0, value);
}
