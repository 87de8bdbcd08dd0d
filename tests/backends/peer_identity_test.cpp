#include "platform/linux/ipc/peer_identity.h"

#include <gtest/gtest.h>

namespace tessary::linux_backend {
namespace {

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

}  // namespace
}  // namespace tessary::linux_backend
