#ifndef ORB_SIM_CONTROL_SCRIPT_H
#define ORB_SIM_CONTROL_SCRIPT_H

// Timed control commands, so that a demo or a test replays exactly:
//
//   # comment
//   at 2.5s unplug 0
//   at 4000ms replug 0
//
// Times count from the start of the launcher's command. Commands whose time
// is equal run in the order written.

#include <chrono>
#include <condition_variable>
#include <functional>
#include <istream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace orbsim {

struct TimedCommand {
    std::chrono::microseconds at;
    std::string command;
    int line;  // in the script, from 1
};

// false with "line N: <why>" in *why for the first line that is not
// blank, a comment or "at TIME COMMAND" with TIME like 2.5s or 300ms.
bool parse_script(std::istream& in, std::vector<TimedCommand>* out, std::string* why);

// Runs the commands at their times on a thread of its own, handing each
// answer to `report`. Destruction stops it where it is.
class ScriptRunner {
public:
    using Run = std::function<std::string(const std::string&)>;
    using Report = std::function<void(const TimedCommand&, const std::string& answer)>;
    ScriptRunner(std::vector<TimedCommand> commands, Run run, Report report);
    ~ScriptRunner();
    ScriptRunner(const ScriptRunner&) = delete;
    ScriptRunner& operator=(const ScriptRunner&) = delete;

private:
    std::mutex mu_;
    std::condition_variable cv_;
    bool stop_ = false;
    std::thread thread_;
};

}  // namespace orbsim

#endif
