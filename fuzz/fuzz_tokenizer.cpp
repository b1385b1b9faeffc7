// The tokenizer behind every list the library reads (look-up tables, sensor
// names, number lists, paths): any delimiter set over any text gives
// non-empty fields free of delimiters that, joined, are the text with its
// delimiters removed.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "utils/orb_utils_interface.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    std::string delimiters = input.ConsumeRandomLengthString(8);
    std::string sentence = input.ConsumeRemainingBytesAsString();

    std::vector<std::string> fields;
    orb_utils_interface::parse_sentense(sentence, delimiters, fields);

    std::string joined;
    for (const std::string& field : fields) {
        if (field.empty() || field.find_first_of(delimiters) != std::string::npos) abort();
        joined += field;
    }
    std::string stripped;
    for (char c : sentence)
        if (delimiters.find(c) == std::string::npos) stripped += c;
    if (joined != stripped) abort();
    return 0;
}
