// The running daemon against what an unprivileged local user can do to it: a
// flood of connections, requests without pause and replies never read.
// Throughout, the same daemon answers a well-behaved root client, its memory
// stays near its idle figure and the preferences stay as they were. What it
// makes of a datagram or arguments it cannot read (decoding bombs, strings
// that are not UTF-8, forms that name another process) is the request
// channel's and the message service's tests'.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#include "client/tessary_client.h"
#include "plist/codec.h"
#include "support/hostile_clients.h"

namespace tessary {
namespace {

using namespace std::chrono_literals;
using testing::HostileChild;
using testing::RawConnection;

constexpr const char* kSocket = "/run/com.orvane.tessaryd";
constexpr const char* kPreferences = "/Library/Tessary/Setup/com.orvane.tessaryd.plist";
constexpr const char* kSyslog = "/run/tessaryd.syslog";
constexpr uid_t kNobody = 65534;

std::string readAll(const std::string& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

pid_t daemonPid() {
    const char* pid = std::getenv("TESSARYD_PID");
    return pid != nullptr ? static_cast<pid_t>(std::atol(pid)) : -1;
}

// The daemon's resident memory in kB, and whether it runs under
// AddressSanitizer, which holds freed memory back on purpose.
long residentKb() {
    std::istringstream status(readAll("/proc/" + std::to_string(daemonPid()) + "/status"));
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::atol(line.c_str() + 6);
        }
    }
    return -1;
}
bool underSanitizer() {
    return readAll("/proc/" + std::to_string(daemonPid()) + "/maps").find("libasan") !=
           std::string::npos;
}

// One "status" from root through the client library: its time, or none when
// it was not answered with success.
std::optional<std::chrono::microseconds> timedStatus() {
    const auto start = std::chrono::steady_clock::now();
    auto reply = client::sendRequest(kSocket, {"status", std::nullopt, std::nullopt}, 20s);
    if (!reply.ok() || reply.value().returnCode != 0) {
        return std::nullopt;
    }
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() -
                                                                 start);
}

// What every test checks at its end: the same daemon answers, it kept its
// memory, and nothing reached the preferences.
class HostileClients : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_GT(daemonPid(), 0) << "run me under daemon-sandbox.sh";
        ASSERT_TRUE(timedStatus());
        idleKb_ = residentKb();
        preferences_ = readAll(kPreferences);
    }
    void TearDown() override {
        EXPECT_TRUE(timedStatus()) << "the daemon stopped answering";
        EXPECT_EQ(::kill(daemonPid(), 0), 0) << "the daemon is gone";
        const long now = residentKb();
        std::printf("resident memory: %ld kB idle, %ld kB after\n", idleKb_, now);
        if (!underSanitizer()) {
            EXPECT_LT(now - idleKb_, 32 * 1024);
        }
        EXPECT_EQ(readAll(kPreferences), preferences_);
    }

  private:
    long idleKb_ = 0;
    std::string preferences_;
};

// Three thousand connections held open by one user: the daemon keeps its
// cap of them and closes the rest at once, says so in one line, and still
// takes root's.
TEST_F(HostileClients, AFloodOfConnectionsLeavesRoomForOthers) {
    const std::size_t logBefore = readAll(kSyslog).size();
    HostileChild child(kNobody, 4096, [](int out, int release) {
        std::vector<std::unique_ptr<RawConnection>> held;
        int refusedConnect = 0;
        for (int i = 0; i < 3000; ++i) {
            auto c = std::make_unique<RawConnection>(kSocket);
            if (!c->connected()) {
                ++refusedConnect;
                continue;
            }
            held.push_back(std::move(c));
        }
        std::this_thread::sleep_for(1s);  // the daemon works through its backlog
        const auto open =
            std::count_if(held.begin(), held.end(), [](const auto& c) { return !c->hungUp(); });
        HostileChild::say(out, std::to_string(open) + " " +
                                   std::to_string(refusedConnect + held.size() - open) + "\n");
        HostileChild::waitForRelease(release);
    });
    std::istringstream report(child.report());
    long open = -1;
    long closed = -1;
    report >> open >> closed;
    EXPECT_EQ(open, 128);
    EXPECT_EQ(open + closed, 3000);
    // Root gets in while the flood is held.
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(timedStatus()) << "request " << i;
    }
    std::this_thread::sleep_for(200ms);  // the log's reader writes a moment later
    const std::string log = readAll(kSyslog).substr(logBefore);
    std::size_t lines = 0;
    for (std::size_t at = log.find("Refused"); at != std::string::npos;
         at = log.find("Refused", at + 1)) {
        ++lines;
    }
    EXPECT_EQ(lines, 1U) << log;
    EXPECT_NE(log.find("uid 65534"), std::string::npos) << log;
    EXPECT_EQ(child.end(), 0);
    // The flood's places are given back.
    EXPECT_TRUE(timedStatus());
}

// A client that sends without pause and one that never reads its replies:
// root's "status" is still answered, each in turn.
TEST_F(HostileClients, ClientsThatFloodOrNeverReadDoNotStallOthers) {
    const auto form = [] {
        const AuthorizationExternalForm own = client::makeAuthorizationForm().value();
        return client::encodeRequest({"list", own, std::nullopt}).value();
    };
    // Refused by polkit each time: the costliest thing an unprivileged user
    // can ask for.
    HostileChild flooder(kNobody, 64, [&form](int out, int /*release*/) {
        RawConnection c(kSocket);
        const plist::Bytes list = form();
        HostileChild::say(out, "ready\n");
        for (int inFlight = 0;;) {
            while (inFlight < 32 && c.send(list)) {
                ++inFlight;
            }
            if (auto reply = c.receive(5s); reply && !reply->empty()) {
                --inFlight;
            } else {
                return;
            }
        }
    });
    HostileChild neverReads(kNobody, 64, [](int out, int release) {
        RawConnection c(kSocket);
        const plist::Bytes status =
            client::encodeRequest({"status", std::nullopt, std::nullopt}).value();
        timeval patience{0, 100'000};
        ::setsockopt(c.fd(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
        // Each send waits a tenth of a second at most; ten in a row that
        // the kernel does not take mean the daemon has stopped reading.
        int sent = 0;
        for (int i = 0, refusedInARow = 0; i < 10000 && refusedInARow < 10; ++i) {
            const bool taken = c.send(status);
            sent += taken ? 1 : 0;
            refusedInARow = taken ? 0 : refusedInARow + 1;
        }
        HostileChild::say(out, std::to_string(sent) + "\n");
        HostileChild::waitForRelease(release);
    });
    ASSERT_EQ(flooder.report(), "ready\n");
    std::vector<std::chrono::microseconds> times;
    for (int i = 0; i < 200; ++i) {
        auto t = timedStatus();
        ASSERT_TRUE(t) << "request " << i;
        times.push_back(*t);
    }
    const long sent = std::atol(neverReads.report().c_str());
    std::sort(times.begin(), times.end());
    std::printf(
        "root's status beside the flood: median %lld us, 99th percentile %lld us; the "
        "client that never reads got %ld of 10000 requests in\n",
        static_cast<long long>(times[100].count()), static_cast<long long>(times[198].count()),
        sent);
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, 10000) << "nothing held the client that never reads back";
    neverReads.end();
    ::kill(flooder.pid(), SIGKILL);
    flooder.end();
    // What the flooder left queued is answered before this.
    EXPECT_TRUE(timedStatus());
}

}  // namespace
}  // namespace tessary
