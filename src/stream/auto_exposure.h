#ifndef ORB_STREAM_AUTO_EXPOSURE_H
#define ORB_STREAM_AUTO_EXPOSURE_H

// The auto-exposure on a stream (orb_stream_auto_expose): ExposureSearch's
// steps carried out with the stream's fresh frames and its settings
// changes. Arguments checked by the caller.

#include <vector>

#include "orb_stream.h"

namespace orbstream {

// `filters` are 0-based, empty for all; target and tolerance resolved.
int auto_expose(int index, const std::vector<int>& filters, int target, int tolerance, int timeout_ms,
                orb_exposure_result& result);

}  // namespace orbstream

#endif
