#ifndef ORB_STM_COMMANDS_H
#define ORB_STM_COMMANDS_H

#include <unistd.h>

// Command codes of the sensor controller's firmware, how they travel, and the
// pauses the controller needs between them: the one definition for the link
// and the streaming layer. Writes carry the byte in wValue and are answered
// with the stored byte; reads answer with it.

// Every firmware command is a class request to the interface with a data
// stage from the device, even the writes: the controller echoes the byte it
// stored.
constexpr int kRequestTypeIn = 0xA1;
constexpr int kRegisterTimeoutMs = 1000;  // for one-byte register accesses

constexpr int kCmdIdentity = 1;    // 5 raw identity bytes
constexpr int kCmdOperation = 3;   // 3 starts the sensor, 1 stops it
constexpr int kRdShutterLow = 4;   // shutter speed, low byte
constexpr int kWrShutterLow = 5;
constexpr int kWrAdcRange = 19;    // ADC input range code
constexpr int kWrAdcGainRes = 20;  // ADC gain in bit 1, resolution in bit 0
constexpr int kWrBlankLow = 33;    // blank time, low byte
constexpr int kWrBlankHigh = 34;   // blank time, high byte
constexpr int kRdAdcRange = 35;
constexpr int kRdShutterHigh = 36; // shutter speed, high byte
constexpr int kWrShutterHigh = 37;
constexpr int kRdBlankLow = 38;
constexpr int kRdBlankHigh = 39;
constexpr int kRdAdcGainRes = 40;
constexpr int kRdFrameAverage = 53; // frames the controller averages before sending one
constexpr int kWrFrameAverage = 54;

constexpr int kOpStart = 3;
constexpr int kOpStop = 1;

// Streaming: class requests to interface 1 with no data stage. Once started
// the sensor sends frames on the bulk endpoint until it is stopped.
constexpr int kRequestTypeOut = 0x21;
constexpr int kStreamInterface = 1;
constexpr int kStreamTimeoutMs = 2000;
constexpr int kCmdStreamStart = 70;
constexpr int kCmdStreamStop = 71;
constexpr unsigned char kFrameEndpoint = 0x81;
// Between the stop and the start of a stream, and between the stops: the
// controller can miss one while it is busy with a frame.
constexpr int kStreamGapMs = 20;

// The controller updates a shutter register within 5 ms, faster than the
// other registers (g_iSleepTime).
constexpr int kShutterStepPauseMs = 5;
// It takes its next request only this long after a frame-average access.
constexpr int kFrameAveragePauseMs = 20;

// How get_filter_data_from_sensor acquires (its useContAcq; 0 is taken as
// the single shot), and the frames a single shot's fresh stream drops: the
// one on the bus and the one being exposed when streaming starts.
constexpr int kModeContinuous = 1;
constexpr int kModeCollect = 2;
constexpr int kModeSingleShot = 3;
constexpr int kSingleShotSkip = 2;

// The controller's pauses are real sleeps, in milliseconds.
inline void pause_ms(int ms) { usleep(static_cast<useconds_t>(ms) * 1000); }

// Writes a register pair, reads it back, and writes it once more when the
// echo disagrees; every access is followed by g_iSleepTime. Returns whether
// the last read-back matched.
bool write_pair_verified(int wr_a, int a, int wr_b, int b, int rd_a, int rd_b, unsigned int index);

#endif  // ORB_STM_COMMANDS_H
