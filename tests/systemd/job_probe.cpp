// The program the real-systemd tests submit as a job. It records what it was
// started with and then behaves as the test asks, through its environment:
//
//   PROBE_OUT       file to write: "pid=N", then "arg=..." for each argument,
//                   then "env=..." for each variable, NUL-separated; written
//                   whole (temporary file, then rename)
//   PROBE_SOCKETS   accept one connection on each passed socket and send it
//                   LISTEN_FDNAMES
//   PROBE_STAY      keep running until stopped
//   PROBE_TERM_MS   on SIGTERM, take this long before exiting
//   PROBE_EXIT      exit with this status
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

extern char** environ;

namespace {

int termDelayMs = 0;

void onTerm(int /*sig*/) {
    if (termDelayMs > 0) {
        ::usleep(static_cast<useconds_t>(termDelayMs) * 1000);
    }
    ::_exit(0);
}

bool writeRecord(const char* path, int argc, char** argv) {
    std::string record = "pid=" + std::to_string(::getpid()) + '\0';
    for (int i = 0; i < argc; ++i) {
        record += std::string("arg=") + argv[i] + '\0';
    }
    for (char** e = environ; *e != nullptr; ++e) {
        record += std::string("env=") + *e + '\0';
    }
    const std::string temp = std::string(path) + ".tmp";
    FILE* f = std::fopen(temp.c_str(), "wb");
    if (f == nullptr) {
        return false;
    }
    const bool ok = std::fwrite(record.data(), 1, record.size(), f) == record.size();
    return std::fclose(f) == 0 && ok && std::rename(temp.c_str(), path) == 0;
}

void answerSockets() {
    const char* count = std::getenv("LISTEN_FDS");
    const char* names = std::getenv("LISTEN_FDNAMES");
    const std::string reply = names != nullptr ? names : "";
    for (int i = 0; count != nullptr && i < std::atoi(count); ++i) {
        const int fd = 3 + i;
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 5000) != 1) {
            continue;
        }
        const int conn = ::accept(fd, nullptr, nullptr);
        if (conn >= 0) {
            (void)!::write(conn, reply.data(), reply.size());
            ::close(conn);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (const char* ms = std::getenv("PROBE_TERM_MS")) {
        termDelayMs = std::atoi(ms);
    }
    struct sigaction sa {};
    sa.sa_handler = onTerm;
    ::sigaction(SIGTERM, &sa, nullptr);

    if (const char* out = std::getenv("PROBE_OUT");
        out != nullptr && !writeRecord(out, argc, argv)) {
        return 2;
    }
    if (std::getenv("PROBE_SOCKETS") != nullptr) {
        answerSockets();
    }
    if (const char* status = std::getenv("PROBE_EXIT")) {
        return std::atoi(status);
    }
    while (std::getenv("PROBE_STAY") != nullptr) {
        ::pause();
    }
    return 0;
}
