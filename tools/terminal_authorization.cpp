#include "terminal_authorization.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "base/unique_fd.h"
#include "platform/linux/ipc/peer_identity.h"
#include "platform/linux/polkit/polkit_authorization_service.h"
#include "platform/linux/sd_handles.h"

extern char** environ;

namespace tessary::client {

namespace {

constexpr const char* kAgent = "/usr/bin/pkttyagent";
// How long the agent may take to register; the password prompt itself may
// take as long as the person at the terminal needs, up to polkit's own limit.
constexpr int kAgentRegistrationMs = 10'000;
constexpr auto kInteractiveTimeout = std::chrono::minutes(5);
constexpr auto kQuietTimeout = std::chrono::seconds(10);

// A text agent for this process, registered with polkit, or none.
class TextAgent {
  public:
    explicit TextAgent(const linux_backend::FormIdentity& self) {
        int pipe[2];
        if (::access(kAgent, X_OK) != 0 || ::pipe2(pipe, O_CLOEXEC) != 0) {
            return;
        }
        UniqueFd readEnd(pipe[0]);
        UniqueFd writeEnd(pipe[1]);
        // The child's copy of the write end must survive the exec: it is
        // the descriptor the agent closes once it is registered.
        posix_spawn_file_actions_t actions;
        (void)posix_spawn_file_actions_init(&actions);
        constexpr int kNotifyFd = 3;
        (void)posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), kNotifyFd);
        const std::string process = std::to_string(self.pid) + "," + std::to_string(self.startTime);
        const std::string notify = std::to_string(kNotifyFd);
        const char* argv[] = {kAgent,         "--process",  process.c_str(), "--notify-fd",
                              notify.c_str(), "--fallback", nullptr};
        const int err =
            posix_spawn(&pid_, kAgent, &actions, nullptr, const_cast<char* const*>(argv), environ);
        (void)posix_spawn_file_actions_destroy(&actions);
        writeEnd.reset();
        if (err != 0) {
            pid_ = -1;
            return;
        }
        // The agent closes its end once registered, or exits when it cannot
        // register: either way the read end sees the end of the pipe.
        pollfd p{readEnd.get(), POLLIN, 0};
        (void)::poll(&p, 1, kAgentRegistrationMs);
    }
    ~TextAgent() {
        if (pid_ > 0) {
            (void)::kill(pid_, SIGTERM);
            while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
            }
        }
    }
    TextAgent(const TextAgent&) = delete;
    TextAgent& operator=(const TextAgent&) = delete;

    bool running() const { return pid_ > 0 && ::waitpid(pid_, nullptr, WNOHANG) == 0; }

  private:
    pid_t pid_ = -1;
};

}  // namespace

Right obtainAdminRight(const std::string& actionId, bool mayAsk) {
    if (::geteuid() == 0) {
        return Right::Held;
    }
    auto self = linux_backend::ownFormIdentity();
    if (!self) {
        return Right::Unknown;
    }
    sd_bus* raw = nullptr;
    if (sd_bus_open_system(&raw) < 0) {
        return Right::Unknown;
    }
    linux_backend::SdBusPtr bus(raw);
    std::optional<TextAgent> agent;
    if (mayAsk && ::isatty(STDIN_FILENO) != 0) {
        agent.emplace(self.value());
    }
    const bool interactive = agent && agent->running();
    bool transport = false;
    auto answer = linux_backend::checkPolkitAuthorization(
        bus.get(), self.value(), actionId, interactive,
        interactive ? std::chrono::microseconds(kInteractiveTimeout)
                    : std::chrono::microseconds(kQuietTimeout),
        transport);
    if (!answer) {
        return Right::Unknown;
    }
    return answer.value() ? Right::Held : Right::Refused;
}

}  // namespace tessary::client
