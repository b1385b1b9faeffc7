#ifndef ORB_SIM_CONTROL_SOCKET_H
#define ORB_SIM_CONTROL_SOCKET_H

// The emulator's control channel: a Unix stream socket that takes one command
// per line and sends back its answer, whose last line is "ok" or
// "error: <why>". Any number of controllers may be connected at once.

#include <functional>
#include <memory>
#include <string>

namespace orbsim {

class ControlServer {
public:
    using Handler = std::function<std::string(const std::string& line)>;
    // Listens on `path` (a stale socket there is replaced; a live one is an
    // error). Throws std::runtime_error with the reason.
    ControlServer(const std::string& path, Handler handler);
    ~ControlServer();  // stops listening, ends every connection, removes the socket
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    struct Impl;

private:
    std::shared_ptr<Impl> impl_;
};

// Sends `line` to the emulator at `path` and puts its whole answer in *answer.
// false, with the reason in *why, when the emulator cannot be reached.
bool send_command(const std::string& path, const std::string& line, std::string* answer, std::string* why);

}  // namespace orbsim

#endif
