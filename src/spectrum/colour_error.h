#ifndef ORB_SPECTRUM_COLOUR_ERROR_H
#define ORB_SPECTRUM_COLOUR_ERROR_H

#include <stdexcept>
#include <string>

namespace orbspectrum {

// A failure that the C boundary turns into its result code and message.
class ColourError : public std::runtime_error {
public:
    ColourError(int code, const std::string& message) : std::runtime_error(message), code_(code) {}
    int code() const { return code_; }

private:
    int code_;
};

}  // namespace orbspectrum

#endif
