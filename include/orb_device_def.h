#ifndef ORB_DEVICE_DEF_H
#define ORB_DEVICE_DEF_H

// What the auto-exposure search aims at, in the sensor's shutter-speed units
// and in filter output counts (DN). One record serves every sensor.

typedef struct _orb_def_auto_exposure_parameters {
    int initial_ss;           // where the search starts
    int min_ss;               // shortest shutter speed it may use
    int max_ss;               // longest shutter speed it may use
    int target_dn_value;      // where the brightest chosen filter is aimed
    int upper_dn_value;       // top of the accepted peak range; also the saturation threshold
    int lower_dn_value;       // bottom of the accepted peak range
    int mean_upper_dn_value;  // ceiling for the mean of the chosen filters
    int mode;                 // 1: stop at the first speed whose peak is in range

    _orb_def_auto_exposure_parameters() { init(); }

    void init() {
        initial_ss = 5;
        min_ss = 1;
        max_ss = 1200;
        target_dn_value = 3300;
        upper_dn_value = 4000;
        lower_dn_value = 3000;
        mean_upper_dn_value = target_dn_value;
        mode = 1;
    }
} orb_def_auto_exposure_parameters;

#endif  // ORB_DEVICE_DEF_H
