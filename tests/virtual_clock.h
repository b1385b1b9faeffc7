#ifndef ORB_TESTS_VIRTUAL_CLOCK_H
#define ORB_TESTS_VIRTUAL_CLOCK_H

// The test binaries define usleep themselves: every pause the library takes
// is recorded here in order and returns at once, so a test can assert the
// protocol's pauses without waiting for them.

#include <cstdint>
#include <vector>

namespace vclock {

// Pauses since the last reset, in microseconds, oldest first.
std::vector<uint64_t> pauses();
// Sum of the recorded pauses, in microseconds.
uint64_t elapsed_us();
void reset();

}  // namespace vclock

#endif
