#ifndef ORB_SIM_CONTROL_COMMANDS_H
#define ORB_SIM_CONTROL_COMMANDS_H

// The emulator's control language: one line in, an answer out. The control
// socket, the timed script and the tests all go through here, so they
// cannot disagree on what a command means.
//
//   unplug N | replug N | clear N | status | help
//   fault N stall REQ | no-reply REQ | wrong-echo CODE VALUE | refuse-claim |
//           refuse-open | short-frame BYTES [FRAME] | stall-bulk | trickle BYTES | hang
//   scene N LIGHT [+ LIGHT...]   (the words of parse_scene, scenes.h)
//   frames N light|counter|constant=V
//   units N nominal|own
//   cover N on|off               (dark frames; the scene stays, shown again when uncovered)
//
// The answer's last line is "ok" or "error: <why>"; status puts one line per
// device before it.

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "orb_sim.h"
#include "scenes.h"

namespace orbsim {

class ControlCommands {
public:
    // Scenes draw their noise from `seed`, offset by the device index, so
    // that two sensors in one scene do not show the same noise, and by the
    // scenes the sensor was shown before, so that a scene shown again (or a
    // sweep's next line) does not repeat the noise of the one before: a
    // sensor's noise never repeats, and a calibration that averaged the
    // same noise into every step would carry it into every spectrum. Each sensor
    // is its own unit (units.h) unless `nominal_units`; its filters are
    // worked out here, so that a scene command later answers at once.
    ControlCommands(Testbed& testbed, uint64_t seed, bool nominal_units = false);

    // Commands from several controllers run one at a time, whole.
    std::string run(const std::string& line);
    // What `scene N ...` does, with the words already read.
    void show(std::size_t index, const Scene& scene);

    static const char* usage();
    // Whether `verb` starts a command of this language.
    static bool is_command(const std::string& verb);
    // Whether an answer ends in "ok".
    static bool succeeded(const std::string& answer);

private:
    // What a device's frames show, as the commands left it.
    struct Light {
        bool nominal = false;      // the unit: nominal, or the sensor's own
        bool has_scene = false;    // a scene (else frames of another kind, which no unit changes)
        bool covered = false;      // the scene is kept but the sensor sees dark
        Scene scene;
        uint64_t shown = 0;        // scenes shown so far: each draws noise of its own
    };

    std::string run_locked(const std::vector<std::string>& words);
    std::string status();
    std::string fault(Sensor& sensor, const std::vector<std::string>& words);
    // `frames`, `scene`, `units` and `cover`: what the sensor's frames show.
    std::string light_source(Sensor& sensor, std::size_t index, const std::vector<std::string>& words);
    void show_locked(std::size_t index, const Scene& scene);
    Light& light_of(std::size_t index);
    const Unit& unit_of(std::size_t index);

    Testbed& testbed_;
    const uint64_t seed_;
    const bool nominal_units_;
    std::vector<Light> lights_;  // by device index
    std::mutex mu_;
};

// Splits a line at blanks.
std::vector<std::string> split_words(const std::string& line);
// A whole decimal number within lo..hi, nothing else on the text.
bool parse_long(const std::string& text, long lo, long hi, long* out);
// light, counter or constant=V (0..4095).
bool parse_frames(const std::string& word, FrameGenerator* out);

}  // namespace orbsim

#endif
