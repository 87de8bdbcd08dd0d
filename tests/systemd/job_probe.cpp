// The program the real-systemd tests submit as a job: it runs until it is
// stopped, and the tests read what it was started with from /proc. With
// PROBE_TERM_MS in its environment it takes that long to exit on SIGTERM.
#include <signal.h>
#include <unistd.h>

#include <cstdlib>

namespace {

int termDelayMs = 0;

void onTerm(int /*sig*/) {
    ::usleep(static_cast<useconds_t>(termDelayMs) * 1000);
    ::_exit(0);
}

}  // namespace

int main() {
    if (const char* ms = std::getenv("PROBE_TERM_MS")) {
        termDelayMs = std::atoi(ms);
    }
    struct sigaction sa {};
    sa.sa_handler = onTerm;
    ::sigaction(SIGTERM, &sa, nullptr);
    for (;;) {
        ::pause();
    }
}
