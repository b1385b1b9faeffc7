#include "control_script.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <sstream>

namespace orbsim {

namespace {

// "2.5s" or "300ms": false for anything else, negative or beyond a day.
bool parse_time(const std::string& word, std::chrono::microseconds* out) {
    double unit = 0;
    std::string number;
    if (word.size() > 2 && word.compare(word.size() - 2, 2, "ms") == 0) {
        unit = 1e3;
        number = word.substr(0, word.size() - 2);
    } else if (word.size() > 1 && word.back() == 's') {
        unit = 1e6;
        number = word.substr(0, word.size() - 1);
    } else {
        return false;
    }
    char* end = nullptr;
    const double v = std::strtod(number.c_str(), &end);
    if (number.empty() || *end || !std::isfinite(v) || v < 0 || v * unit > 86400e6) return false;
    *out = std::chrono::microseconds(static_cast<long long>(std::llround(v * unit)));
    return true;
}

}  // namespace

bool parse_script(std::istream& in, std::vector<TimedCommand>* out, std::string* why) {
    std::vector<TimedCommand> commands;
    std::string text;
    for (int n = 1; std::getline(in, text); n++) {
        std::istringstream words(text);
        std::string at, time;
        if (!(words >> at) || at[0] == '#') continue;
        TimedCommand c{std::chrono::microseconds(0), "", n};
        std::getline(words >> time >> std::ws, c.command);
        if (at != "at" || !parse_time(time, &c.at) || c.command.empty()) {
            *why = "line " + std::to_string(n) + ": want 'at TIME COMMAND' with TIME like 2.5s or 300ms, not '" +
                   text + "'";
            return false;
        }
        commands.push_back(c);
    }
    std::stable_sort(commands.begin(), commands.end(),
                     [](const TimedCommand& a, const TimedCommand& b) { return a.at < b.at; });
    *out = std::move(commands);
    return true;
}

ScriptRunner::ScriptRunner(std::vector<TimedCommand> commands, Run run, Report report) {
    const auto start = std::chrono::steady_clock::now();
    thread_ = std::thread([this, commands = std::move(commands), run, report, start] {
        for (const TimedCommand& c : commands) {
            {
                std::unique_lock<std::mutex> lock(mu_);
                if (cv_.wait_until(lock, start + c.at, [this] { return stop_; })) return;
            }
            report(c, run(c.command));
        }
    });
}

ScriptRunner::~ScriptRunner() {
    {
        std::lock_guard<std::mutex> lock(mu_);
        stop_ = true;
    }
    cv_.notify_one();
    thread_.join();
}

}  // namespace orbsim
