#pragma once

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/temp_dir.h"

namespace tessary::testing {

// The user without rights the tests become: "nobody", uid and gid 65534.
inline constexpr uid_t kNobody = 65534;

// Becomes nobody for good, groups and all; false when that is not allowed.
inline bool becomeNobody() {
    const gid_t gid = kNobody;
    return ::setgroups(1, &gid) == 0 && ::setresgid(gid, gid, gid) == 0 &&
           ::setresuid(kNobody, kNobody, kNobody) == 0;
}

// Starts `argv` with its standard output and error appended to `output`.
// `prepare` runs in the child before the exec (to change user, or mounts);
// the child ends with 126 when it fails.
inline pid_t spawnProcess(std::vector<std::string> argv, const std::string& output,
                          const std::function<bool()>& prepare = {}) {
    std::vector<char*> args;
    for (auto& a : argv) {
        args.push_back(a.data());
    }
    args.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        const int fd = ::open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (fd < 0 || ::dup2(fd, 1) < 0 || ::dup2(fd, 2) < 0 || (prepare && !prepare())) {
            ::_exit(126);
        }
        ::execv(args[0], args.data());
        ::_exit(127);
    }
    return pid;
}

inline void stopProcess(pid_t& pid, int signal = SIGTERM) {
    if (pid > 0 && ::kill(pid, signal) == 0) {
        ::waitpid(pid, nullptr, 0);
    }
    pid = -1;
}

struct ProcessRun {
    pid_t pid = -1;
    int exitCode = -1;   // -1: killed, or ended by a signal
    std::string output;  // standard output and error
};

// Runs `argv` to its end, at most 15 s. `turn` runs while it waits: a test
// that serves the process from its own event loop turns that loop.
inline ProcessRun runProcess(const std::vector<std::string>& argv,
                             const std::function<void()>& turn = {},
                             const std::function<bool()>& prepare = {}) {
    TempDir dir;
    ProcessRun run;
    run.pid = spawnProcess(argv, dir / "output", prepare);
    int status = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    while (run.pid > 0 && ::waitpid(run.pid, &status, WNOHANG) != run.pid) {
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(run.pid, SIGKILL);
            ::waitpid(run.pid, &status, 0);
            break;
        }
        turn ? turn() : std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.output = readFile(dir / "output");
    return run;
}

// Polls `done` until it holds or `timeout` passes.
inline bool eventually(const std::function<bool()>& done,
                       std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    for (auto end = std::chrono::steady_clock::now() + timeout; !done();) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// What `command` writes to its standard output, without its last newlines.
inline std::string commandOutput(const std::string& command) {
    FILE* p = ::popen((command + " 2>/dev/null").c_str(), "r");
    std::string out;
    char buf[256];
    for (std::size_t n = 0; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) {
        out.append(buf, n);
    }
    ::pclose(p);
    while (!out.empty() && out.back() == '\n') {
        out.pop_back();
    }
    return out;
}

// A dbus-daemon of our own configuration listening on `socket`: any name
// may be owned and anyone talked to. With `anyUser` false only the user it
// runs as may connect, as on a user's session bus. False when it does not
// come up; `pid` is then still to be stopped.
inline bool startBusDaemon(pid_t& pid, const std::string& socket, bool anyUser = true,
                           const std::function<bool()>& prepare = {}) {
    const std::string config = socket + ".conf";
    writeFile(config, "<busconfig><listen>unix:path=" + socket +
                          "</listen><auth>EXTERNAL</auth><policy context=\"default\">" +
                          (anyUser ? "<allow user=\"*\"/>" : "") +
                          "<allow own=\"*\"/><allow send_destination=\"*\"/>"
                          "<allow receive_sender=\"*\"/></policy></busconfig>\n");
    pid =
        spawnProcess({"/usr/bin/dbus-daemon", "--config-file=" + config, "--nofork", "--nopidfile"},
                     socket + ".log", prepare);
    return eventually([&] { return std::filesystem::exists(socket); }, std::chrono::seconds(5));
}

}  // namespace tessary::testing
