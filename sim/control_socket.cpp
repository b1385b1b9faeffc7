#include "control_socket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace orbsim {

namespace {

// A command line longer than this is not a command.
constexpr std::size_t kMaxLine = 4096;

sockaddr_un address_of(const std::string& path) {
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof a.sun_path)
        throw std::runtime_error("control socket path must have 1 to " + std::to_string(sizeof a.sun_path - 1) +
                                 " characters: " + path);
    std::memcpy(a.sun_path, path.c_str(), path.size() + 1);
    return a;
}

int connect_to(const std::string& path) {
    const sockaddr_un a = address_of(path);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (connect(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0) {
        const int saved = errno;
        close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}

bool write_all(int fd, const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t n = send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

bool is_last_line(const std::string& line) { return line == "ok" || line.rfind("error:", 0) == 0; }

}  // namespace

struct ControlServer::Impl : std::enable_shared_from_this<ControlServer::Impl> {
    std::string path;
    Handler handler;
    int listen_fd = -1;
    int wake[2] = {-1, -1};  // written to once, at shut-down
    std::thread acceptor;
    // Each connection has a detached thread; shut-down waits for them all.
    std::mutex mu;
    std::condition_variable all_done;
    std::vector<int> connections;

    void accept_loop();
    void serve(int fd);
};

ControlServer::ControlServer(const std::string& path, Handler handler) : impl_(std::make_shared<Impl>()) {
    Impl& s = *impl_;
    s.path = path;
    s.handler = std::move(handler);
    const sockaddr_un a = address_of(path);
    s.listen_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (s.listen_fd < 0) throw std::runtime_error(std::string("socket: ") + std::strerror(errno));
    const auto bound = [&] { return bind(s.listen_fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0; };
    bool ready = bound();
    if (!ready && errno == EADDRINUSE) {
        // A socket nobody answers on is left over from an emulator that died.
        const int other = connect_to(path);
        if (other >= 0) {
            close(other);
            close(s.listen_fd);
            throw std::runtime_error("another emulator is listening on " + path);
        }
        unlink(path.c_str());
        ready = bound();
    }
    if (!ready || listen(s.listen_fd, 16) != 0 || pipe2(s.wake, O_CLOEXEC) != 0) {
        const std::string why = std::strerror(errno);
        close(s.listen_fd);
        throw std::runtime_error("cannot listen on " + path + ": " + why);
    }
    s.acceptor = std::thread([&s] { s.accept_loop(); });
}

ControlServer::~ControlServer() {
    Impl& s = *impl_;
    const char bye = 0;
    (void)!write(s.wake[1], &bye, 1);
    s.acceptor.join();
    {
        std::lock_guard<std::mutex> lock(s.mu);
        for (int fd : s.connections) shutdown(fd, SHUT_RDWR);
    }
    std::unique_lock<std::mutex> lock(s.mu);
    s.all_done.wait(lock, [&s] { return s.connections.empty(); });
    close(s.listen_fd);
    close(s.wake[0]);
    close(s.wake[1]);
    unlink(s.path.c_str());
}

void ControlServer::Impl::accept_loop() {
    for (;;) {
        pollfd fds[2] = {{listen_fd, POLLIN, 0}, {wake[0], POLLIN, 0}};
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[1].revents) return;
        const int fd = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        std::lock_guard<std::mutex> lock(mu);
        connections.push_back(fd);
        // The thread holds the state it uses, which may outlive the server
        // by the moment it takes to return.
        std::thread([self = shared_from_this(), fd] { self->serve(fd); }).detach();
    }
}

void ControlServer::Impl::serve(int fd) {
    std::string pending;
    char buf[512];
    for (;;) {
        const ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        pending.append(buf, static_cast<std::size_t>(n));
        std::size_t eol;
        bool open = true;
        while (open && (eol = pending.find('\n')) != std::string::npos) {
            std::string line = pending.substr(0, eol);
            pending.erase(0, eol + 1);
            if (!line.empty() && line.back() == '\r') line.pop_back();
            open = write_all(fd, handler(line) + "\n");
        }
        if (open && pending.size() > kMaxLine) {
            write_all(fd, "error: command line longer than " + std::to_string(kMaxLine) + " bytes\n");
            open = false;
        }
        if (!open) break;
    }
    std::lock_guard<std::mutex> lock(mu);
    connections.erase(std::find(connections.begin(), connections.end(), fd));
    close(fd);
    all_done.notify_all();
}

bool send_command(const std::string& path, const std::string& line, std::string* answer, std::string* why) {
    int fd;
    try {
        fd = connect_to(path);
    } catch (const std::exception& e) {
        *why = e.what();
        return false;
    }
    if (fd < 0) {
        *why = "cannot reach the emulator at " + path + ": " + std::strerror(errno);
        return false;
    }
    answer->clear();
    bool sent = write_all(fd, line + "\n"), done = false;
    std::string got;
    std::size_t scanned = 0;
    char buf[512];
    while (sent && !done) {
        const ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) sent = false;
        else got.append(buf, static_cast<std::size_t>(n));
        for (std::size_t eol; !done && (eol = got.find('\n', scanned)) != std::string::npos; scanned = eol + 1)
            done = is_last_line(got.substr(scanned, eol - scanned));
    }
    close(fd);
    if (!sent) {
        *why = "the emulator at " + path + " closed the connection";
        return false;
    }
    *answer = got;
    return true;
}

}  // namespace orbsim
