// Sensor names as hosts pass them back: any text, split into its fields
// without reading past it, with numbers that do not fit left to saturate.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "utils/orb_utils_interface.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);

    // The letter is only written for a readable name, so it must keep a
    // caller's value otherwise.
    char letter = '?';
    short lot = -1, wafer = -1, x = -1, y = -1;
    orb_utils_interface::decode_sensor_ID(text, &letter, &lot, &wafer, &x, &y);
    if (text.find('-') == std::string::npos && letter != '?') abort();

    // Null outputs are skipped, whatever the text.
    orb_utils_interface::decode_sensor_ID(text, nullptr, nullptr, nullptr, nullptr, nullptr);
    return 0;
}
