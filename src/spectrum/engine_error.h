#ifndef ORB_SPECTRUM_ENGINE_ERROR_H
#define ORB_SPECTRUM_ENGINE_ERROR_H

#include <stdexcept>
#include <string>

namespace orbspectrum {

// A failure of the calibration or the reconstruction that the C boundary
// turns into its result code (an orb_spectrum_result) and message.
class EngineError : public std::runtime_error {
public:
    EngineError(int result, const std::string& message) : std::runtime_error(message), result_(result) {}
    int result() const { return result_; }

private:
    int result_;
};

}  // namespace orbspectrum

#endif
