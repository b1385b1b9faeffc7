#ifndef ORB_STM_COMMANDS_H
#define ORB_STM_COMMANDS_H

#include <unistd.h>

// Command codes of the sensor controller's firmware. Writes carry the byte in
// wValue and are answered with the stored byte; reads answer with it.

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

// The controller's pauses are real sleeps, in milliseconds.
inline void pause_ms(int ms) { usleep(static_cast<useconds_t>(ms) * 1000); }

// Writes a register pair, reads it back, and writes it once more when the
// echo disagrees; every access is followed by g_iSleepTime. Returns whether
// the last read-back matched.
bool write_pair_verified(int wr_a, int a, int wr_b, int b, int rd_a, int rd_b, unsigned int index);

#endif  // ORB_STM_COMMANDS_H
