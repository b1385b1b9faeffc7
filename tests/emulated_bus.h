#ifndef ORB_TESTS_EMULATED_BUS_H
#define ORB_TESTS_EMULATED_BUS_H

// One emulated USB bus per test process. It must exist before the first
// libusb_init and is deliberately never torn down: the library keeps its
// default libusb context for the life of the process.

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "orb_sim.h"

inline orbsim::Testbed& testbed() {
    static auto* tb = new orbsim::Testbed;
    return *tb;
}

// Runs `body` with stdout captured and returns what it printed.
template <typename F>
std::string printed_by(F&& body) {
    fflush(stdout);
    testing::internal::CaptureStdout();
    body();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

#endif
