// orb-emulate: runs any program against emulated sensors, which a
// person, a script or a test drives from outside while the program runs.
//
// The testbed lives in this process; the command and every process it starts
// reach it through umockdev's preload (LD_PRELOAD) and UMOCKDEV_DIR, so their
// own, unmodified libusb-1.0 finds the sensors, and the sensors keep their
// state from one process to the next. The exit status is the command's (128 +
// signal if it was killed). Nothing is printed on standard output: that
// belongs to the command.

#include <limits.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>

#include "control_commands.h"
#include "control_script.h"
#include "control_socket.h"
#include "orb_sim.h"
#include "scenes.h"

namespace {

constexpr const char* kControlEnv = "ORB_EMULATE_CONTROL";

const char kUsage[] =
    "usage: orb-emulate [OPTIONS] -- COMMAND [ARGS...]\n"
    "       orb-emulate ctl [SOCKET] COMMAND...\n"
    "\n"
    "Runs COMMAND against emulated spectral sensors (0483:5740) that any libusb-1.0\n"
    "program finds, and serves a control socket that changes them while it runs.\n"
    "\n"
    "options:\n"
    "  --sensors N             emulated sensors on bus 1 (default 1, at most 80)\n"
    "  --led                   an LED module after them\n"
    "  --frames KIND           light (default), counter or constant=V (0..4095)\n"
    "  --scene 'LIGHT [...]'   every sensor looks at a light source, as the scene\n"
    "                          command below (e.g. --scene 'halogen 0.8 --flicker 100')\n"
    "  --units nominal|own     own (default): each sensor's filters are its own unit's,\n"
    "                          seeded by its identity; nominal: the model as designed\n"
    "  --frame-period-us P     at least P microseconds from one frame to the next\n"
    "  --timing realistic|fast realistic (default): frames and control transfers take\n"
    "                          the time they take on a full-speed bus; fast: at once\n"
    "  --seed S                seed of the scenes' noise (default 1)\n"
    "  --control PATH          the control socket (default: one in the emulator's own\n"
    "                          directory); COMMAND finds it in $ORB_EMULATE_CONTROL\n"
    "  --script FILE           timed control commands, one per line: at 2.5s unplug 0\n"
    "  --help                  this text\n"
    "\n"
    "ctl sends one control command to SOCKET (default $ORB_EMULATE_CONTROL) and prints\n"
    "the answer; it exits 0 on ok, 1 on error, 2 when the emulator cannot be reached.\n"
    "\n";

pid_t g_child = 0;

void forward(int sig) {
    if (g_child > 0) kill(g_child, sig);
}

int usage(const std::string& why) {
    std::fprintf(stderr, "orb-emulate: %s (see orb-emulate --help)\n", why.c_str());
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

// The library that refuses a barred device node to root as well: beside this
// program in a build tree, in ../lib once installed.
std::string node_access_library() {
    char self[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) return "";
    self[n] = 0;
    std::string dir(self);
    dir.erase(dir.rfind('/'));
    for (const std::string& candidate : {dir + "/liborbsim-access.so", dir + "/../lib/liborbsim-access.so"})
        if (access(candidate.c_str(), R_OK) == 0) return candidate;
    return "";
}

void preload_for_the_command() {
    std::string preload = "libumockdev-preload.so.0";
    if (const std::string access_lib = node_access_library(); !access_lib.empty())
        preload = access_lib + " " + preload;
    if (const char* old = std::getenv("LD_PRELOAD"); old && *old) preload += std::string(" ") + old;
    setenv("LD_PRELOAD", preload.c_str(), 1);
    allow_preload_before_asan();
}

int ctl(int argc, char** argv) {
    int first = 0;
    std::string path;
    // A socket is named by a path; anything else is the command's first word.
    if (argc > 0 && (std::strchr(argv[0], '/') || access(argv[0], F_OK) == 0)) {
        path = argv[0];
        first = 1;
    } else if (const char* env = std::getenv(kControlEnv)) {
        path = env;
    }
    if (path.empty()) return usage("ctl: no socket given and ORB_EMULATE_CONTROL is not set");
    if (first >= argc) return usage("ctl: no control command given");
    // The emulator reads a `file` scene from its own working directory, so
    // a relative path is made this shell's.
    std::string line;
    for (int i = first; i < argc; i++) {
        std::string word = argv[i];
        if (i > first && std::strcmp(argv[i - 1], "file") == 0 && !word.empty() && word[0] != '/') {
            char cwd[PATH_MAX];
            if (getcwd(cwd, sizeof cwd)) word = std::string(cwd) + "/" + word;
        }
        line += (i > first ? " " : "") + word;
    }
    std::string answer, why;
    if (!orbsim::send_command(path, line, &answer, &why)) {
        std::fprintf(stderr, "orb-emulate ctl: %s\n", why.c_str());
        return 2;
    }
    std::fputs(answer.c_str(), stdout);
    return orbsim::ControlCommands::succeeded(answer) ? 0 : 1;
}

struct Options {
    long sensors = 1, period_us = 0, seed = 1;
    bool led = false;
    orbsim::Timing timing = orbsim::Timing::Realistic;
    orbsim::FrameGenerator frames = orbsim::light_frames();
    bool scene = false, nominal_units = false;
    orbsim::Scene scene_settings;
    std::string control, script;
    std::vector<orbsim::TimedCommand> timed;
};

// Reads the options up to "--"; returns the index of the command, or -1
// after printing why on standard error.
int parse_options(int argc, char** argv, Options* o) {
    int i = 1;
    for (; i < argc && std::strcmp(argv[i], "--") != 0; i++) {
        const std::string a = argv[i];
        const bool has_value = i + 1 < argc;
        const std::string next = has_value ? argv[i + 1] : "";
        const auto value = [&](long lo, long hi, long* out, const char* what) {
            if (!orbsim::parse_long(next, lo, hi, out)) return usage(a + " wants " + what), false;
            i++;
            return true;
        };
        if (a == "--sensors") {
            if (!value(0, 80, &o->sensors, "a count from 0 to 80")) return -1;
        } else if (a == "--led") {
            o->led = true;
        } else if (a == "--frame-period-us") {
            if (!value(0, 10000000, &o->period_us, "microseconds from 0 to 10000000")) return -1;
        } else if (a == "--seed") {
            if (!value(0, LONG_MAX, &o->seed, "a whole number from 0")) return -1;
        } else if (a == "--frames") {
            if (!orbsim::parse_frames(next, &o->frames))
                return usage("--frames wants light, counter or constant=0..4095"), -1;
            i++;
        } else if (a == "--timing") {
            if (next != "realistic" && next != "fast") return usage("--timing wants realistic or fast"), -1;
            o->timing = next == "fast" ? orbsim::Timing::Fast : orbsim::Timing::Realistic;
            i++;
        } else if (a == "--scene") {
            std::string why;
            if (!orbsim::parse_scene(orbsim::split_words(next), &o->scene_settings, &why))
                return usage("--scene: " + why), -1;
            o->scene = true;
            i++;
        } else if (a == "--units") {
            if (next != "nominal" && next != "own") return usage("--units wants nominal or own"), -1;
            o->nominal_units = next == "nominal";
            i++;
        } else if (a == "--control" || a == "--script") {
            if (!has_value || next.empty()) return usage(a + " wants a path"), -1;
            (a == "--control" ? o->control : o->script) = next;
            i++;
        } else {
            return usage("unknown option " + a), -1;
        }
    }
    if (i + 1 >= argc) return usage("no command given after --"), -1;
    if (!o->script.empty()) {
        std::ifstream in(o->script);
        std::string why;
        if (!in) return usage("cannot read the script " + o->script), -1;
        if (!orbsim::parse_script(in, &o->timed, &why)) return usage(o->script + ": " + why), -1;
        for (const auto& c : o->timed)
            if (!orbsim::ControlCommands::is_command(orbsim::split_words(c.command)[0]))
                return usage(o->script + ": line " + std::to_string(c.line) + ": unknown command '" + c.command + "'"),
                       -1;
    }
    return i + 1;
}

int run_command(char** command, const std::string& control) {
    // Like system(): the terminal's interrupt reaches the command, which
    // decides; we stay to tear the emulator down after it.
    signal(SIGINT, SIG_IGN);
    signal(SIGQUIT, SIG_IGN);
    g_child = fork();
    if (g_child < 0) {
        std::fprintf(stderr, "orb-emulate: fork: %s\n", std::strerror(errno));
        return 127;
    }
    if (g_child == 0) {
        // Set here, where no other thread can read the environment meanwhile.
        setenv(kControlEnv, control.c_str(), 1);
        preload_for_the_command();
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

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::strcmp(argv[1], "ctl") == 0) return ctl(argc - 2, argv + 2);
    if (argc > 1 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        std::fputs(kUsage, stdout);
        std::fputs(orbsim::ControlCommands::usage(), stdout);
        return 0;
    }
    Options o;
    const int first = parse_options(argc, argv, &o);
    if (first < 0) return 2;

    orbsim::Testbed testbed;
    for (long n = 0; n < o.sensors; n++) {
        orbsim::Sensor& s = testbed.add_sensor();
        s.set_frame_generator(o.frames);
        s.set_frame_period(std::chrono::microseconds(o.period_us));
        s.set_timing(o.timing);
    }
    if (o.led) testbed.add_led_module();

    orbsim::ControlCommands control(testbed, static_cast<uint64_t>(o.seed), o.nominal_units);
    if (o.scene)
        for (long n = 0; n < o.sensors; n++) control.show(static_cast<std::size_t>(n), o.scene_settings);
    const auto run = [&control](const std::string& line) { return control.run(line); };
    if (o.control.empty()) o.control = testbed.root_dir() + "/control";
    std::unique_ptr<orbsim::ControlServer> server;
    try {
        server = std::make_unique<orbsim::ControlServer>(o.control, run);
    } catch (const std::exception& e) {
        return usage(e.what());
    }

    std::unique_ptr<orbsim::ScriptRunner> script;
    if (!o.timed.empty())
        script = std::make_unique<orbsim::ScriptRunner>(
            o.timed, run, [&o](const orbsim::TimedCommand& c, const std::string& answer) {
                if (!orbsim::ControlCommands::succeeded(answer))
                    std::fprintf(stderr, "orb-emulate: %s line %d (%s): %s\n", o.script.c_str(), c.line,
                                 c.command.c_str(), answer.substr(answer.rfind("error:")).c_str());
            });
    return run_command(argv + first, o.control);
}
