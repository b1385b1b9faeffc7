#ifndef ORB_SENSOR_ID_TEXT_H
#define ORB_SENSOR_ID_TEXT_H

// A sensor's name as hosts see it, "C1234-7-20-33-1": lot letter and number,
// wafer, the die's x and y, sensor type.

#include <stdio.h>

#include <string>

inline std::string sensor_id_text(char lot_char, short lot_id, short wafer_id, short x_coord, short y_coord,
                                  short sensor_type) {
    char text[48];  // six parts at their widest
    snprintf(text, sizeof text, "%c%d-%d-%d-%d-%d", lot_char, lot_id, wafer_id, x_coord, y_coord, sensor_type);
    return text;
}

#endif  // ORB_SENSOR_ID_TEXT_H
