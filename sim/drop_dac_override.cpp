#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "orb_sim.h"

namespace orbsim {

namespace {

// Capabilities are per thread on Linux; pid 0 addresses the calling thread.
bool get_caps(__user_cap_data_struct (&data)[2]) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    return syscall(SYS_capget, &header, data) == 0;
}

bool set_caps(__user_cap_data_struct (&data)[2]) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    return syscall(SYS_capset, &header, data) == 0;
}

constexpr uint32_t kDacBits = (1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH);

}  // namespace

DropDacOverride::DropDacOverride() {
    __user_cap_data_struct data[2] = {};
    if (!get_caps(data) || !(data[0].effective & kDacBits)) return;
    data[0].effective &= ~kDacBits;
    dropped_ = set_caps(data);
}

DropDacOverride::~DropDacOverride() {
    if (!dropped_) return;
    __user_cap_data_struct data[2] = {};
    if (!get_caps(data)) return;
    // Still in the permitted set, so the thread may take them back.
    data[0].effective |= kDacBits & data[0].permitted;
    set_caps(data);
}

}  // namespace orbsim
