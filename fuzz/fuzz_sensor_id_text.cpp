// Sensor names as hosts pass them back: any text is split into its fields
// without reading past it, and a text of fewer than four fields reads as four
// zeros with the caller's letter left alone.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "utils/orb_utils_interface.h"

namespace {

size_t dash_separated_fields(const std::string& text) {
    size_t count = 0;
    for (size_t i = 0; i < text.size(); i++)
        if (text[i] != '-' && (i == 0 || text[i - 1] == '-')) count++;
    return count;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);

    char letter = '?';
    short lot = -1, wafer = -1, x = -1, y = -1;
    orb_utils_interface::decode_sensor_ID(text, &letter, &lot, &wafer, &x, &y);
    if (dash_separated_fields(text) < 4) {
        if (letter != '?' || lot != 0 || wafer != 0 || x != 0 || y != 0) abort();
    } else if (letter != text[text.find_first_not_of('-')]) {
        abort();
    }

    // Null outputs are skipped, whatever the text.
    orb_utils_interface::decode_sensor_ID(text, nullptr, nullptr, nullptr, nullptr, nullptr);
    return 0;
}
