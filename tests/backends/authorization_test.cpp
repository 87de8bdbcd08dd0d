#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <thread>

#include "platform/linux/peer_identity.h"
#include "platform/linux/polkit_authorization_service.h"
#include "platform/linux/proc_code_signing_service.h"
#include "support/temp_dir.h"

namespace tessary::linux_backend {
namespace {

using namespace std::chrono_literals;
using Polkit = PolkitAuthorizationService;
constexpr const char* kAdmin = "system.privilege.admin";

int rightOf(Polkit& polkit, const FormIdentity& id, const std::string& right = kAdmin) {
    auto imported = polkit.importExternalForm(encodeExternalForm(id));
    EXPECT_EQ(imported.status, 0);
    return imported.authorization ? polkit.copyRight(*imported.authorization, right, 0) : -1;
}

// Rights when polkit cannot be asked, for this process (root) and for a
// process of uid 65534.
class FailClosedTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (::geteuid() != 0) {
            GTEST_SKIP() << "needs root to make a process of another uid";
        }
        nobody = ::fork();
        if (nobody == 0) {
            if (::setresuid(65534, 65534, 65534) == 0) {
                ::pause();
            }
            ::_exit(1);
        }
        const std::string status = "/proc/" + std::to_string(nobody) + "/status";
        for (int i = 0;
             i < 500 && testing::readFile(status).find("Uid:\t65534") == std::string::npos; ++i) {
            std::this_thread::sleep_for(2ms);
        }
        other = {static_cast<std::uint32_t>(nobody), 65534, processStartTime(nobody).value()};
    }
    void TearDown() override {
        if (nobody > 0) {
            ::kill(nobody, SIGKILL);
            ::waitpid(nobody, nullptr, 0);
        }
    }

    void expectOnlyRoot(Polkit& polkit) {
        EXPECT_EQ(rightOf(polkit, me), 0);
        EXPECT_EQ(rightOf(polkit, other), Polkit::kUnavailable);
        EXPECT_NE(rightOf(polkit, me, "system.privilege.taskport"), 0);
        EXPECT_NE(rightOf(polkit, me, ""), 0);
        // A form that says root is not enough: the process must be root.
        EXPECT_EQ(rightOf(polkit, {other.pid, 0, other.startTime}), Polkit::kDenied);
        EXPECT_EQ(rightOf(polkit, {me.pid, 0, me.startTime + 1}), Polkit::kDenied);
    }

    testing::TempDir dir;
    pid_t nobody = -1;
    FormIdentity me = ownFormIdentity().value();
    FormIdentity other;
};

TEST_F(FailClosedTest, WithoutABus) {
    Polkit polkit({"unix:path=" + dir.path() + "/no-bus", "com.orvane.tessaryd.admin", 1s});
    expectOnlyRoot(polkit);
}

// A bus without polkitd on it answers at once that nobody owns the name.
TEST_F(FailClosedTest, WithABusButNoPolkit) {
    if (::access("/usr/bin/dbus-daemon", X_OK) != 0) {
        GTEST_SKIP() << "no dbus-daemon";
    }
    const std::string socket = dir / "bus";
    const pid_t bus = ::fork();
    if (bus == 0) {
        const std::string address = "--address=unix:path=" + socket;
        ::execl("/usr/bin/dbus-daemon", "dbus-daemon", "--session", "--nofork", "--nopidfile",
                address.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    for (int i = 0; i < 500 && !std::filesystem::exists(socket); ++i) {
        std::this_thread::sleep_for(10ms);
    }
    Polkit polkit({"unix:path=" + socket, "com.orvane.tessaryd.admin", 2s});
    const auto start = std::chrono::steady_clock::now();
    expectOnlyRoot(polkit);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
    ::kill(bus, SIGTERM);
    ::waitpid(bus, nullptr, 0);
    // The bus gone, the cached connection fails and the answer stays closed.
    expectOnlyRoot(polkit);
}

AuditAttribute attributeFor(const AuditToken* token) {
    AuditAttribute attribute{};
    std::memcpy(attribute.data(), &token, sizeof token);
    return attribute;
}

TEST(ProcCodeSigning, ResolvesTheProcessATokenNames) {
    ProcCodeSigningService signing;
    PeerIdentity me = describeProcess(::getpid(), ::geteuid(), ::getegid());
    const AuditToken token = encodeAuditToken(auditTokenWords(me));
    auto guest = signing.copyGuestWithAuditAttribute(attributeFor(&token));
    ASSERT_EQ(guest.status, 0);
    const auto* code = dynamic_cast<const ProcCodeSigningService::ProcessCode*>(guest.code.get());
    ASSERT_NE(code, nullptr);
    EXPECT_EQ(code->pid(), ::getpid());
    EXPECT_EQ(code->executable(), std::filesystem::read_symlink("/proc/self/exe").string());

    auto always = signing.createRequirement("true");
    ASSERT_EQ(always.status, 0);
    EXPECT_EQ(signing.checkValidity(*guest.code, *always.requirement), 0);
    for (const char* text : {"false", "true "}) {
        auto other = signing.createRequirement(text);
        EXPECT_NE(other.status, 0) << text;
        EXPECT_EQ(other.requirement, nullptr);
    }
}

TEST(ProcCodeSigning, RefusesTokensOfNoLiveProcess) {
    ProcCodeSigningService signing;
    PeerIdentity me = describeProcess(::getpid(), ::geteuid(), ::getegid());

    // Another process now holds the pid, as far as the start time tells.
    me.startTime = *me.startTime + 1;
    AuditToken token = encodeAuditToken(auditTokenWords(me));
    EXPECT_NE(signing.copyGuestWithAuditAttribute(attributeFor(&token)).status, 0);

    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(0);
    }
    // Exited but not yet reaped: its /proc entry stands, its executable not.
    const std::string stat = "/proc/" + std::to_string(child) + "/stat";
    for (int i = 0; i < 500 && testing::readFile(stat).find(") Z ") == std::string::npos; ++i) {
        std::this_thread::sleep_for(2ms);
    }
    PeerIdentity zombie = describeProcess(child, 0, 0);
    ASSERT_TRUE(zombie.startTime);
    token = encodeAuditToken(auditTokenWords(zombie));
    EXPECT_NE(signing.copyGuestWithAuditAttribute(attributeFor(&token)).status, 0);
    ::waitpid(child, nullptr, 0);
    EXPECT_NE(signing.copyGuestWithAuditAttribute(attributeFor(&token)).status, 0);

    EXPECT_NE(signing.copyGuestWithAuditAttribute(attributeFor(nullptr)).status, 0);
}

}  // namespace
}  // namespace tessary::linux_backend
