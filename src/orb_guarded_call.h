#ifndef ORB_GUARDED_CALL_H
#define ORB_GUARDED_CALL_H

// The sensor objects' guarded calls: a failure of the sensor link comes back
// as its code (negated where `sign` is -1) instead of an exception; any other
// exception passes on to the caller.

#include "orb_base_exception.h"

template <typename Body>
int guarded_call(Body&& body, int sign = 1) {
    try {
        return body();
    } catch (const orb_base_exception& e) {
        return sign * e.m_error_code;
    }
}

#endif  // ORB_GUARDED_CALL_H
