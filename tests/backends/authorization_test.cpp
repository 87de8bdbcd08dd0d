#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstring>

#include "platform/linux/ipc/peer_identity.h"
#include "platform/linux/ipc/proc_code_signing_service.h"
#include "platform/linux/polkit/polkit_authorization_service.h"
#include "support/process.h"
#include "support/temp_dir.h"

namespace tessary::linux_backend {
namespace {

using namespace std::chrono_literals;
using Polkit = PolkitAuthorizationService;

// A child process, killed and reaped when the test is done with it.
struct Child {
    pid_t pid = ::fork();
    ~Child() { testing::stopProcess(pid, SIGKILL); }
};

// Without polkit only root holds the right: asked over no bus at all, over a
// bus that polkitd is not on (which answers at once), and over that bus once
// it has gone.
TEST(FailClosedTest, OnlyRootHoldsTheRightWithoutPolkit) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to make a process of another uid";
    }
    Child nobody;
    if (nobody.pid == 0) {
        if (::setresuid(65534, 65534, 65534) == 0) {
            ::pause();
        }
        ::_exit(1);
    }
    (void)testing::eventually(
        [&] { return processStatusIds(nobody.pid).value_or(StatusIds{}).effectiveUid == 65534; });
    const FormIdentity me = ownFormIdentity().value();
    const FormIdentity other{static_cast<std::uint32_t>(nobody.pid), 65534,
                             processStartTime(nobody.pid).value()};
    auto expectOnlyRoot = [&](Polkit& polkit, const char* bus) {
        auto rightOf = [&](const FormIdentity& id, const std::string& right) {
            auto imported = polkit.importExternalForm(encodeExternalForm(id));
            EXPECT_EQ(imported.status, 0);
            return imported.authorization ? polkit.copyRight(*imported.authorization, right, 0)
                                          : -1;
        };
        const std::string admin = "system.privilege.admin";
        EXPECT_EQ(rightOf(me, admin), 0) << bus;
        EXPECT_EQ(rightOf(other, admin), Polkit::kUnavailable) << bus;
        EXPECT_NE(rightOf(me, "system.privilege.taskport"), 0) << bus;
        // A form that says root is not enough: the process must be root.
        EXPECT_EQ(rightOf({other.pid, 0, other.startTime}, admin), Polkit::kDenied) << bus;
        EXPECT_EQ(rightOf({me.pid, 0, me.startTime + 1}, admin), Polkit::kDenied) << bus;
    };
    testing::TempDir dir;
    Polkit noBus({"unix:path=" + dir.path() + "/no-bus", "com.orvane.tessaryd.admin", 1s});
    expectOnlyRoot(noBus, "no bus");

    if (::access("/usr/bin/dbus-daemon", X_OK) != 0) {
        GTEST_SKIP() << "no dbus-daemon for the part with a bus";
    }
    const std::string socket = dir / "bus";
    pid_t bus = -1;
    ASSERT_TRUE(testing::startBusDaemon(bus, socket));
    Polkit polkit({"unix:path=" + socket, "com.orvane.tessaryd.admin", 2s});
    const auto start = std::chrono::steady_clock::now();
    expectOnlyRoot(polkit, "bus without polkit");
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
    testing::stopProcess(bus);
    expectOnlyRoot(polkit, "bus gone");  // the cached connection fails
}

AuditAttribute attributeFor(const AuditToken* token) {
    AuditAttribute attribute{};
    std::memcpy(attribute.data(), &token, sizeof token);
    return attribute;
}

// The code behind a token is the live process it names, and only that.
TEST(ProcCodeSigning, ResolvesOnlyTheLiveProcessATokenNames) {
    ProcCodeSigningService signing;
    auto guestOf = [&](const PeerIdentity& peer) {
        const AuditToken token = encodeAuditToken(auditTokenWords(peer));
        return signing.copyGuestWithAuditAttribute(attributeFor(&token));
    };
    PeerIdentity me = describeProcess(::getpid(), ::geteuid(), ::getegid());
    auto guest = guestOf(me);
    ASSERT_EQ(guest.status, 0);
    const auto* code = dynamic_cast<const ProcCodeSigningService::ProcessCode*>(guest.code.get());
    ASSERT_NE(code, nullptr);
    EXPECT_EQ(code->pid(), ::getpid());

    // Another process now holds the pid, as far as the start time tells.
    me.startTime = *me.startTime + 1;
    EXPECT_NE(guestOf(me).status, 0);
    EXPECT_NE(signing.copyGuestWithAuditAttribute(attributeFor(nullptr)).status, 0);

    // A sender that has ended but is not reaped yet still has its pid and
    // start time; it is no code any more.
    Child sender;
    if (sender.pid == 0) {
        ::_exit(0);
    }
    siginfo_t info{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(sender.pid), &info, WEXITED | WNOWAIT), 0);
    me.pid = sender.pid;
    me.startTime =
        parseStatStartTime(testing::readFile("/proc/" + std::to_string(sender.pid) + "/stat"));
    ASSERT_TRUE(me.startTime.has_value());
    EXPECT_NE(guestOf(me).status, 0);
}

}  // namespace
}  // namespace tessary::linux_backend
