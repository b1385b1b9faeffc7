// Number lists as text, in both directions: any text reads as some list,
// and a list written out reads back as the same list.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "utils/orb_utils_interface.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<int> read = orb_utils_interface::string_to_integer_vector(text);
    std::string written = orb_utils_interface::integer_vector_to_string(read);
    if (orb_utils_interface::string_to_integer_vector(written) != read) abort();

    // The same bytes taken as ints, including INT_MIN and INT_MAX.
    std::vector<int> values(size / sizeof(int));
    if (!values.empty()) memcpy(values.data(), data, values.size() * sizeof(int));
    std::string list = orb_utils_interface::integer_vector_to_string(values);
    if (orb_utils_interface::string_to_integer_vector(list) != values) abort();
    return 0;
}
