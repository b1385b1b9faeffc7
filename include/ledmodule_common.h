#ifndef LEDMODULE_COMMON_H
#define LEDMODULE_COMMON_H

// The LED module's channels by position: the numbers and the labels are the
// module maker's lists as shipped; they disagree at positions 6 to 9, and
// hosts that show a channel pick whichever list their users know.

static const int wavelength_list[12] = {468, 529, 572, 610, 640, 740, 880, 900, 190, 422, 430, 850};
static const char* const wavelength_type[12] = {"468 nm", "529 nm", "572 nm", "610 nm", "640 nm", "740 nm",
                                                "940 nm", "574 nm", "15000K", "6600K",  "430 nm", "850 nm"};

// Edges of the visible range, in nm.
static const int iVisibleRangeStartIndex = 380;
static const int iVisibleRangeEndIndex = 780;

#endif  // LEDMODULE_COMMON_H
