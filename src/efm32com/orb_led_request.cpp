#include "orb_led_request.h"

#include "lusb.h"

namespace {

constexpr int kLedRequestType = 0x21;  // host to device, class, interface
constexpr int kLedSetState = 9;
constexpr int kLedTimeoutMs = 1000;

}  // namespace

int led_channel_bits(const bool* OnArray, int nNumOfLED) {
    unsigned int bits = 0;
    for (int i = 0; OnArray != nullptr && i < nNumOfLED; i++)
        if (OnArray[i]) bits |= 1u << (i & 31);
    return static_cast<int>(bits);
}

int led_state_word(const bool* OnArray, int nNumOfLED, int intensity) {
    // Unsigned shifts: a negative intensity spills as bits, it is not undefined.
    unsigned int word = static_cast<unsigned int>(led_channel_bits(OnArray, nNumOfLED));
    word |= static_cast<unsigned int>(intensity) << 8;
    return static_cast<int>(word);
}

void send_led_state(libusb_device_handle* handle, int value) {
    usb_control_msg(handle, kLedRequestType, kLedSetState, value, 0, nullptr, 0, kLedTimeoutMs);
}
