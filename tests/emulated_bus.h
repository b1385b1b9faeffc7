#ifndef ORB_TESTS_EMULATED_BUS_H
#define ORB_TESTS_EMULATED_BUS_H

// One emulated USB bus per test process. It must exist before the first
// libusb_init and is deliberately never torn down: the library keeps its
// default libusb context for the life of the process.

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "orb_sim.h"

inline orbsim::Testbed& testbed() {
    static auto* tb = new orbsim::Testbed;
    return *tb;
}

// The values (interface, configuration, endpoint...) of every operation of
// one kind that the sensor saw, in order.
inline std::vector<int> seen(const orbsim::Sensor& sensor, orbsim::Event::Kind kind) {
    std::vector<int> values;
    for (const auto& e : sensor.events())
        if (e.kind == kind) values.push_back(e.value);
    return values;
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
