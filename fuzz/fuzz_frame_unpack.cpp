// A frame as the bulk endpoint delivers it, 2048 bytes of any content (a
// short transfer leaves the rest zeroed): every filter value comes out as a
// whole 12-bit number and the wire buffer is handed back cleared.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "orb_device_interface_stm.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    unsigned char wire[2048] = {};
    memcpy(wire, data, size < sizeof wire ? size : sizeof wire);
    double values[1024];
    convert_2048C_to_1024F(wire, values);

    for (double v : values)
        if (!(v >= 0.0 && v <= 4095.0) || v != static_cast<double>(static_cast<int>(v))) abort();
    for (unsigned char b : wire)
        if (b != 0) abort();
    return 0;
}
