// orb-emulate: runs any program against emulated sensors.
//
//   orb-emulate --sensors N [--led] [--frames light|counter|constant=V]
//               [--frame-period-us P] [--timing realistic|fast] -- COMMAND [ARGS...]
//
// --timing realistic (the default) paces frames and control transfers as a
// full-speed sensor on a full-speed bus does; fast answers as soon as the
// host asks (see sim/README.md).
//
// The testbed lives in this process; the child reaches it through umockdev's
// preload (LD_PRELOAD) and UMOCKDEV_DIR, so its own, unmodified libusb-1.0
// finds the sensors. The exit status is the child's (128 + signal if it was
// killed). Nothing is printed on standard output: that belongs to the child.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "orb_sim.h"

namespace {

pid_t g_child = 0;

void forward(int sig) {
    if (g_child > 0) kill(g_child, sig);
}

int usage(const char* why) {
    std::fprintf(stderr,
                 "orb-emulate: %s\n"
                 "usage: orb-emulate --sensors N [--led] [--frames light|counter|constant=V]\n"
                 "                   [--frame-period-us P] [--timing realistic|fast] -- COMMAND [ARGS...]\n",
                 why);
    return 2;
}

// The preload must sit in front of libc, so in a host built with
// AddressSanitizer it comes before the ASan runtime, which then refuses to
// start although it works behind the preload. Only that check of the library
// order is turned off (other programs ignore the variable), and a choice the
// caller made in ASAN_OPTIONS still wins.
void allow_preload_before_asan() {
    std::string options = "verify_asan_link_order=0";
    if (const char* old = std::getenv("ASAN_OPTIONS"); old && *old) options += std::string(":") + old;
    setenv("ASAN_OPTIONS", options.c_str(), 1);
}

bool parse_int(const char* text, long lo, long hi, long* out) {
    char* end = nullptr;
    errno = 0;
    long v = std::strtol(text, &end, 10);
    if (errno || end == text || *end || v < lo || v > hi) return false;
    *out = v;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    long sensors = 1, period_us = 0;
    bool led = false;
    orbsim::Timing timing = orbsim::Timing::Realistic;
    orbsim::FrameGenerator frames = orbsim::light_frames();
    int i = 1;
    for (; i < argc && std::strcmp(argv[i], "--") != 0; i++) {
        const std::string a = argv[i];
        const char* next = i + 1 < argc ? argv[i + 1] : "";
        if (a == "--sensors") {
            if (!parse_int(next, 0, 80, &sensors)) return usage("--sensors wants a count from 0 to 80");
            i++;
        } else if (a == "--led") {
            led = true;
        } else if (a == "--frame-period-us") {
            if (!parse_int(next, 0, 10000000, &period_us)) return usage("--frame-period-us wants microseconds");
            i++;
        } else if (a == "--timing") {
            if (std::strcmp(next, "realistic") == 0) timing = orbsim::Timing::Realistic;
            else if (std::strcmp(next, "fast") == 0) timing = orbsim::Timing::Fast;
            else return usage("--timing wants realistic or fast");
            i++;
        } else if (a == "--frames") {
            const std::string kind = next;
            long v = 0;
            if (kind == "light") frames = orbsim::light_frames();
            else if (kind == "counter") frames = orbsim::counter_frames();
            else if (kind.rfind("constant=", 0) == 0 && parse_int(kind.c_str() + 9, 0, 4095, &v))
                frames = orbsim::constant_frames(static_cast<uint16_t>(v));
            else return usage("--frames wants light, counter or constant=0..4095");
            i++;
        } else {
            return usage(("unknown option " + a).c_str());
        }
    }
    if (i + 1 >= argc) return usage("no command given after --");
    char** command = argv + i + 1;

    orbsim::Testbed testbed;
    for (long n = 0; n < sensors; n++) {
        orbsim::Sensor& s = testbed.add_sensor();
        s.set_frame_generator(frames);
        s.set_frame_period(std::chrono::microseconds(period_us));
        s.set_timing(timing);
    }
    if (led) testbed.add_led_module();

    std::string preload = "libumockdev-preload.so.0";
    if (const char* old = std::getenv("LD_PRELOAD"); old && *old) preload += std::string(" ") + old;
    setenv("LD_PRELOAD", preload.c_str(), 1);
    allow_preload_before_asan();

    // Like system(): the terminal's interrupt reaches the child, which decides;
    // we stay to tear the testbed down after it.
    signal(SIGINT, SIG_IGN);
    signal(SIGQUIT, SIG_IGN);
    g_child = fork();
    if (g_child < 0) {
        std::fprintf(stderr, "orb-emulate: fork: %s\n", std::strerror(errno));
        return 127;
    }
    if (g_child == 0) {
        signal(SIGINT, SIG_DFL);
        signal(SIGQUIT, SIG_DFL);
        execvp(command[0], command);
        std::fprintf(stderr, "orb-emulate: cannot run %s: %s\n", command[0], std::strerror(errno));
        _exit(127);
    }
    signal(SIGTERM, forward);
    signal(SIGHUP, forward);
    int status = 0;
    while (waitpid(g_child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return WEXITSTATUS(status);
}
