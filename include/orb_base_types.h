#ifndef ORB_BASE_TYPES_H
#define ORB_BASE_TYPES_H

#include "orb_export.h"

// Filter data travels as plain doubles; the name marks buffers that hold
// sensor values so their width is never in doubt at the host boundary.
typedef double FLOAT64_TYPE;

// Key/value rows for ordering a map by its values (filter index -> count or
// level); the key rides along so the caller can tell which filter it was.
typedef struct IntDataPair {
    int key;
    int val;
} IntDataPair;

typedef struct DoubleDataPair {
    int key;
    double val;
} DoubleDataPair;

// Orderings by value alone; keys never break ties.
ORB_EXPORT bool AscendingSortByIntVal(const IntDataPair& a, const IntDataPair& b);
ORB_EXPORT bool DescendingSortByIntVal(const IntDataPair& a, const IntDataPair& b);
ORB_EXPORT bool AscendingSortByDoubleVal(const DoubleDataPair& a, const DoubleDataPair& b);
ORB_EXPORT bool DescendingSortByDoubleVal(const DoubleDataPair& a, const DoubleDataPair& b);

#endif // ORB_BASE_TYPES_H
