// The auto-exposure look-up tables as files on disk: any content is loaded
// without harm, and the shared count is the number of fields on the first
// non-empty line, or what it was before when there is no such line.

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "orb_device_interface_ae.h"

namespace {

// Comma-separated fields of the first non-empty line; -1 when every line is
// empty.
long expected_fields(const std::string& content) {
    size_t start = 0;
    while (start < content.size() && content[start] == '\n') start++;
    if (start == content.size()) return -1;
    const size_t end = content.find('\n', start);
    const std::string line = content.substr(start, end == std::string::npos ? std::string::npos : end - start);
    long count = 0;
    bool in_field = false;
    for (char c : line) {
        if (c == ',') {
            in_field = false;
        } else if (!in_field) {
            in_field = true;
            count++;
        }
    }
    return count;
}

// One scratch file for the whole run, removed when the fuzzer exits.
char g_tablePath[] = "/tmp/orb_fuzz_lut_XXXXXX";

const char* table_path() {
    static const bool made = [] {
        const int fd = mkstemp(g_tablePath);
        if (fd < 0) abort();
        close(fd);
        atexit([] { unlink(g_tablePath); });
        return true;
    }();
    (void)made;
    return g_tablePath;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* path = table_path();
    FILE* f = fopen(path, "wb");
    if (f == nullptr) abort();
    if (size > 0 && fwrite(data, 1, size, f) != size) abort();
    fclose(f);

    const int before = g_aeLUTSize;
    initialize_ae_module(path, path);
    const long expected = expected_fields(std::string(reinterpret_cast<const char*>(data), size));
    if (g_aeLUTSize != (expected < 0 ? before : expected)) abort();

    // Every counted entry of both tables must be there to read.
    volatile double sink = 0.0;
    for (int i = 0; i < g_aeLUTSize; i++) sink = sink + g_intensityLUT[i] + g_ssLUT[i];
    return 0;
}
