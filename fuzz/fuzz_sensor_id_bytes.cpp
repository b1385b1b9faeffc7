// Five identity bytes as a sensor (or a damaged one) may send them: the text
// must always be a well-formed name whose fields fit their bit widths, and
// the library's own text parser must read the same fields back from it.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "orb_device_interface_device_info.h"
#include "utils/orb_utils_interface.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 5) return 0;
    char raw[5];
    for (int i = 0; i < 5; i++) raw[i] = static_cast<char>(data[i]);
    const std::string text = decode_sensor_id_from_string(raw, 0);

    char letter = 0;
    int lot = -1, wafer = -1, x = -1, y = -1, type = -1;
    if (sscanf(text.c_str(), "%c%d-%d-%d-%d-%d", &letter, &lot, &wafer, &x, &y, &type) != 6) abort();
    // Letter from 5 bits, lot from 14, wafer 5, die position at most 7 bits
    // each, type at most 3.
    if (letter < 'A' || letter > 'A' + 31) abort();
    if (lot < 0 || lot > 0x3FFF || wafer < 0 || wafer > 31) abort();
    if (x < 0 || x > 127 || y < 0 || y > 127 || type < 0 || type > 7) abort();

    char parsed_letter = 0;
    short parsed_lot = -1, parsed_wafer = -1, parsed_x = -1, parsed_y = -1;
    orb_utils_interface::decode_sensor_ID(text, &parsed_letter, &parsed_lot, &parsed_wafer, &parsed_x, &parsed_y);
    if (parsed_letter != letter || parsed_lot != lot || parsed_wafer != wafer || parsed_x != x || parsed_y != y)
        abort();
    return 0;
}
