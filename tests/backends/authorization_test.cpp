#include <elf.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstring>

#include "platform/linux/fs/file_bundle_info.h"
#include "platform/linux/fs/file_product_info.h"
#include "platform/linux/ipc/peer_identity.h"
#include "platform/linux/ipc/proc_code_signing_service.h"
#include "platform/linux/polkit/polkit_authorization_service.h"
#include "plist/codec.h"
#include "support/process.h"
#include "support/temp_dir.h"

namespace tessary::linux_backend {
namespace {

using namespace std::chrono_literals;
using plist::Value;
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
        if (testing::becomeNobody()) {
            ::pause();
        }
        ::_exit(1);
    }
    (void)testing::eventually([&] {
        return processStatusIds(nobody.pid).value_or(StatusIds{}).effectiveUid == testing::kNobody;
    });
    const FormIdentity me = ownFormIdentity().value();
    const FormIdentity other{static_cast<std::uint32_t>(nobody.pid), testing::kNobody,
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
    // A bus without polkit is found out at once: were the call left to time
    // out, the test would outlast its time limit.
    Polkit polkit({"unix:path=" + socket, "com.orvane.tessaryd.admin", std::chrono::hours(1)});
    expectOnlyRoot(polkit, "bus without polkit");
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

TEST(StatLine, StartTimeIsCountedFromTheLastParenthesis) {
    auto line = [](const std::string& comm, const std::string& startTime = "777") {
        // Fields 3 to 21, then the start time, then the rest of a real line.
        return "4242 (" + comm + ") S 1 4242 4242 0 -1 4194560 120 0 0 0 0 0 0 0 20 0 1 0 " +
               startTime + " 9400320 900 18446744073709551615 1 1 0 0 0 0 0 0 0 0 0 0 17 1 0\n";
    };
    for (const std::string comm : {"a) b (c", ") ) ) 5 6", "", "a)\n1 2"}) {
        EXPECT_EQ(parseStatStartTime(line(comm)), 777U) << comm;
    }
    EXPECT_EQ(parseStatStartTime(line("a", "18446744073709551615")), UINT64_MAX);
    for (const std::string& bad : {line("a", "18446744073709551616"), line("a", "7x"),
                                   std::string("4242 (a) S 1 2 3\n"), std::string()}) {
        EXPECT_EQ(parseStatStartTime(bad), std::nullopt) << bad;
    }
}

// Client and daemon share the form's encoding; the daemon reads a form only
// when every fixed byte is as written, and it names a process only with its
// start time.
TEST(ExternalForm, IsReadStrictlyAndNamesAProcessWithItsStartTime) {
    const FormIdentity id{0x01020304, 1000, 0x1122334455667788};
    const AuthorizationExternalForm form = encodeExternalForm(id);
    EXPECT_EQ(decodeExternalForm(form), id);
    // Magic, version (low and high byte), reserved bytes.
    for (const std::size_t at : {0, 4, 7, 24, 31}) {
        auto changed = form;
        changed[at] ^= 0x80;
        EXPECT_FALSE(decodeExternalForm(changed)) << at;
    }
    EXPECT_FALSE(decodeExternalForm(std::span(form).first(31)));

    PeerIdentity peer;
    peer.pid = 0x01020304;
    peer.uid = 1000;
    EXPECT_FALSE(formNamesPeer(form, peer));  // start time unknown: nothing matches
    peer.startTime = 0x1122334455667788;
    EXPECT_TRUE(formNamesPeer(form, peer));
}

TEST(FileProductInfo, FirstLineWithoutWhiteSpaceOrNothing) {
    testing::TempDir dir;
    FileProductInfo info(dir / "version", dir / "minimum");
    EXPECT_EQ(info.tessaryVersion(), std::nullopt);
    EXPECT_EQ(info.minimumTessaryVersion(), std::nullopt);
    testing::writeFile(dir / "version", "  5.11.1 \r\nsecond line\n");
    testing::writeFile(dir / "minimum", "5.0");
    EXPECT_EQ(info.tessaryVersion(), "5.11.1");
    EXPECT_EQ(info.minimumTessaryVersion(), "5.0");
    testing::writeFile(dir / "version", " \t\n5.2\n");  // a blank first line
    EXPECT_EQ(info.tessaryVersion(), std::nullopt);
}

// A bundle's Contents/Info.plist, and the dictionary an executable carries
// in its own section (the running daemon reads its own in the end-to-end
// tests); nothing from a damaged copy, nothing from outside the bundle.
TEST(FileBundleInfo, DictionaryOfABundleOrAnExecutable) {
    testing::TempDir dir;
    FileBundleInfo info;
    const std::string bundle = dir / "Tessary.app";
    auto writeInfo = [&](const Value& v, plist::Format format) {
        auto bytes = plist::encode(v, format).value();
        testing::writeFile(bundle + "/Contents/Info.plist",
                           std::string(bytes.begin(), bytes.end()));
    };
    EXPECT_EQ(info.infoDictionary(bundle), std::nullopt);
    const Value dict(plist::Dictionary{{"CFBundleExecutable", Value("Tessary")}});
    writeInfo(dict, plist::Format::Binary);
    EXPECT_EQ(info.infoDictionary(bundle), dict);
    EXPECT_EQ(info.mainExecutablePath(bundle + "/"), bundle + "/Contents/MacOS/Tessary");
    // Names that would lead out of the bundle's executable directory.
    for (const char* name : {"", "..", "../../bin/sh", "/bin/sh"}) {
        writeInfo(Value(plist::Dictionary{{"CFBundleExecutable", Value(name)}}),
                  plist::Format::Xml);
        EXPECT_EQ(info.mainExecutablePath(bundle), std::nullopt) << name;
    }
    writeInfo(Value(plist::Array{Value("x")}), plist::Format::Xml);
    EXPECT_EQ(info.infoDictionary(bundle), std::nullopt);

    const std::string original = testing::readFile(INFO_CARRIER);
    auto carried = info.infoDictionary(INFO_CARRIER);
    ASSERT_TRUE(carried);
    EXPECT_EQ(*carried->stringAt("CFBundleVersion"), "5.11.1");
    EXPECT_EQ(info.infoDictionary("/bin/true"), std::nullopt);  // carries none
    // Damaged: cut short in the section headers.
    Elf64_Ehdr header{};
    std::memcpy(&header, original.data(), sizeof header);
    testing::writeFile(dir / "damaged", original.substr(0, header.e_shoff + 10));
    EXPECT_EQ(info.infoDictionary(dir / "damaged"), std::nullopt);
}

}  // namespace
}  // namespace tessary::linux_backend
