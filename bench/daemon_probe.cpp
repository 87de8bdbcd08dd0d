// Drives a daemon in the sandbox for the figures that are not round trips:
//
//   tessary_daemon_probe startup DAEMON
//       starts DAEMON, prints "startup_us N": from just before the exec to
//       the first "status" answered; then stops it (SIGTERM) and waits.
//   tessary_daemon_probe load N
//       sends N requests on one connection, every fifth a "list" and the
//       rest "status"; exits non-zero if any fails.
//   tessary_daemon_probe time NAME CMD [ARG...] [-- CMD [ARG...]]...
//       runs each command in turn, its output dropped, and prints "NAME_us N":
//       the time of the whole sequence; exits non-zero if any command fails.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "client/tessary_client.h"
#include "run_quietly.h"

extern char** environ;

namespace {

namespace client = tessary::client;
using Clock = std::chrono::steady_clock;

client::Request request(const char* command, bool authorized) {
    client::Request r;
    r.command = command;
    if (authorized) {
        r.authorizationForm = client::makeAuthorizationForm().value();
    }
    return r;
}

bool answered(const tessary::Result<client::Reply>& reply) {
    return reply && reply.value().returnCode == 0;
}

int startup(const char* daemon) {
    const client::Request status = request("status", false);
    char* argv[] = {const_cast<char*>(daemon), nullptr};
    const auto start = Clock::now();
    pid_t pid = 0;
    if (posix_spawn(&pid, daemon, nullptr, nullptr, argv, environ) != 0) {
        std::perror("posix_spawn");
        return 1;
    }
    // Until the socket is there, and the daemon listens on it, every
    // attempt fails at once; the short pause keeps this loop off the CPU
    // the daemon needs.
    bool ok = false;
    while (!ok && Clock::now() - start < std::chrono::seconds(30)) {
        ok = answered(client::sendRequest(client::kDefaultSocket, status));
        if (!ok) {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    }
    const auto took = Clock::now() - start;
    (void)kill(pid, SIGTERM);
    int wstatus = 0;
    (void)waitpid(pid, &wstatus, 0);
    if (!ok) {
        std::fprintf(stderr, "startup: no answer from %s\n", daemon);
        return 1;
    }
    std::printf("startup_us %lld\n",
                static_cast<long long>(
                    std::chrono::duration_cast<std::chrono::microseconds>(took).count()));
    return 0;
}

int load(long count) {
    auto connection = client::Connection::open(client::kDefaultSocket);
    if (!connection) {
        std::fprintf(stderr, "load: no daemon\n");
        return 1;
    }
    const client::Request status = request("status", false);
    const client::Request list = request("list", true);
    for (long i = 0; i < count; ++i) {
        if (!answered(connection.value().send(i % 5 == 4 ? list : status))) {
            std::fprintf(stderr, "load: request %ld failed\n", i);
            return 1;
        }
    }
    return 0;
}

int timeCommands(const char* name, int argc, char** argv) {
    std::vector<std::vector<std::string>> commands(1);
    for (int i = 0; i < argc; ++i) {
        if (std::string(argv[i]) == "--") {
            commands.emplace_back();
        } else {
            commands.back().push_back(argv[i]);
        }
    }
    const auto start = Clock::now();
    for (const auto& command : commands) {
        if (command.empty() || !tessary::bench::runQuietly(command)) {
            std::fprintf(stderr, "time: %s failed\n",
                         command.empty() ? "(none)" : command[0].c_str());
            return 1;
        }
    }
    const auto took = Clock::now() - start;
    std::printf("%s_us %lld\n", name,
                static_cast<long long>(
                    std::chrono::duration_cast<std::chrono::microseconds>(took).count()));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 2 ? argv[1] : "";
    if (mode == "startup") {
        return startup(argv[2]);
    }
    if (mode == "load") {
        return load(std::atol(argv[2]));
    }
    if (mode == "time" && argc > 3) {
        return timeCommands(argv[2], argc - 3, argv + 3);
    }
    std::fprintf(stderr, "usage: %s startup DAEMON | load N | time NAME CMD... [-- CMD...]\n",
                 argv[0]);
    return 64;
}
