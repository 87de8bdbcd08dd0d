#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "backends/event_loop.h"
#include "base/unique_fd.h"
#include "doubles/recording_system_log.h"
#include "platform/linux/ipc/peer_identity.h"
#include "platform/linux/ipc/unix_message_service.h"
#include "plist/codec.h"
#include "support/handmade_plist.h"
#include "support/process.h"
#include "support/temp_dir.h"
#include "support/value_printer.h"

namespace tessary {
namespace {

using namespace std::chrono_literals;
using linux_backend::FormIdentity;
using linux_backend::UnixMessageService;
using plist::Dictionary;
using plist::Value;
using Kind = PeerEvent::Kind;
using testing::kNobody;

plist::Bytes binary(const Dictionary& d) {
    return plist::encode(Value(d), plist::Format::Binary).value();
}

UniqueFd connectTo(const std::string& path) {
    UniqueFd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
    EXPECT_EQ(::connect(fd.get(), reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    const int big = 1 << 20;  // room for the oversize datagrams
    (void)::setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUFFORCE, &big, sizeof big);
    return fd;
}

bool send(int fd, const plist::Bytes& bytes) {
    return ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
}

std::uint32_t procNumber(const std::string& file) {
    std::uint32_t v = 0;
    std::ifstream(file) >> v;
    return v;
}

Value formValue(const FormIdentity& id) {
    const auto f = linux_backend::encodeExternalForm(id);
    return Value::data(plist::Bytes(f.begin(), f.end()));
}

// The listener on a temporary path, with every event of the connection
// made to it recorded.
class MessageServiceTest : public ::testing::Test {
  protected:
    void SetUp() override {
        listener = service.createListener("com.orvane.tessaryd");
        ASSERT_NE(listener, nullptr);
        listener->setEventHandler([this](const ListenerEvent& e) {
            ASSERT_EQ(e.kind, ListenerEvent::Kind::NewConnection) << e.description;
            connection = e.connection;
            connection->setEventHandler([this](const PeerEvent& pe) { events.push_back(pe); });
            connection->activate();
        });
        listener->activate();
    }

    // Waits for the `n`th event of the connection.
    const PeerEvent& event(std::size_t n) {
        static const PeerEvent kNone{Kind::Error, std::nullopt, "none"};
        EXPECT_TRUE(testing::runUntil(queue, [&] { return events.size() > n; }));
        return events.size() > n ? events[n] : kNone;
    }
    // The fields of the `n`th event, a message.
    Value fieldsOf(std::size_t n) {
        const PeerEvent& e = event(n);
        EXPECT_EQ(e.kind, Kind::Message) << n << ": " << e.description;
        return e.message ? Value(e.message->fields) : Value("(no message)");
    }

    testing::TempDir dir;
    std::string path = dir / "sock";
    linux_backend::SdEventQueue queue;
    testing::RecordingSystemLog log;
    UnixMessageService service{queue, log, path};
    std::unique_ptr<MessageListener> listener;
    std::shared_ptr<MessageConnection> connection;
    std::vector<PeerEvent> events;
};

// Every datagram on a connection is one event, in order: an Error for one
// that is not a keyed message, a message without fields for one over the
// limit, and a message whose 32-byte form is made unimportable unless it
// names the sender. Each message carries the sender's audit token.
TEST_F(MessageServiceTest, EachDatagramIsOneEventAndRepliesFollowInOrder) {
    // A socket left by an earlier run is replaced (the end-to-end tests
    // restart the daemon over one); anything else at the path is kept, and
    // the daemon says why it has no channel.
    testing::writeFile(dir / "file", "keep");
    EXPECT_EQ(UnixMessageService(queue, log, dir / "file").createListener("x"), nullptr);
    EXPECT_EQ(testing::readFile(dir / "file"), "keep");
    EXPECT_EQ(log.countStartingWith("ERROR: Unable to listen at '" + (dir / "file") + "'"), 1U);

    auto requestOfSize = [](std::size_t size) {
        Dictionary d{{"commandString", Value("x")}, {"f", Value::data(plist::Bytes(size))}};
        d["f"] = Value::data(plist::Bytes(2 * size - binary(d).size()));
        EXPECT_EQ(binary(d).size(), size);
        return d;
    };
    auto withForm = [](Value form) {
        return Dictionary{{"commandString", Value("status")},
                          {"argumentsData", Value::data(binary({{"service", Value("a")}}))},
                          {UnixMessageService::kFormKey, std::move(form)}};
    };
    const FormIdentity me = linux_backend::ownFormIdentity().value();
    const Value unimportable = Value::data(plist::Bytes(32, 0));
    ASSERT_FALSE(linux_backend::decodeExternalForm(*unimportable.data()));
    const Dictionary atLimit = requestOfSize(UnixMessageService::kMaxDatagram);
    const std::string bomb = testing::HandMadeList::nested(24, 2);
    testing::HandMadeList notUtf8;
    notUtf8.add(notUtf8.dictionary({{1, 2}}));
    notUtf8.add(testing::HandMadeList::string("commandString"));
    notUtf8.add(testing::HandMadeList::string("st\xE9tus"));
    const std::string odd = notUtf8.bytes();
    // A list that would build 2^25 values is refused before it is built; a
    // command that is not UTF-8 arrives as it is (the daemon knows no such
    // command); forms naming another process, or this one with another uid
    // or start time, are made unimportable; other lengths are the daemon's
    // to refuse.
    std::vector<std::pair<plist::Bytes, std::optional<Dictionary>>> cases = {
        {binary(withForm(formValue(me))), withForm(formValue(me))},
        {plist::encode(Value(plist::Array{Value("list")}), plist::Format::Binary).value(),
         std::nullopt},
        {binary(atLimit), atLimit},
        {binary(requestOfSize(UnixMessageService::kMaxDatagram + 1)), Dictionary{}},
        {plist::Bytes(bomb.begin(), bomb.end()), std::nullopt},
        {plist::Bytes(odd.begin(), odd.end()), Dictionary{{"commandString", Value("st\xE9tus")}}},
        {binary(withForm(formValue({1, me.uid, me.startTime}))), withForm(unimportable)},
        {binary(withForm(formValue({me.pid, kNobody, me.startTime}))), withForm(unimportable)},
        {binary(withForm(formValue({me.pid, me.uid, me.startTime + 1}))), withForm(unimportable)},
        {binary(withForm(Value::data({1, 2}))), withForm(Value::data({1, 2}))},
    };

    UniqueFd client = connectTo(path);
    for (const auto& [bytes, expected] : cases) {
        ASSERT_TRUE(send(client.get(), bytes));
    }
    for (std::size_t i = 0; i < cases.size(); ++i) {
        if (cases[i].second) {
            EXPECT_EQ(fieldsOf(i), Value(*cases[i].second)) << "datagram " << i;
        } else {
            EXPECT_EQ(event(i).kind, Kind::Error) << "datagram " << i;
        }
    }
    EXPECT_EQ(connection->peerPid(), ::getpid());
    EXPECT_EQ(linux_backend::decodeAuditToken(event(0).message->auditToken),
              (linux_backend::AuditTokenWords{
                  procNumber("/proc/self/loginuid"), ::geteuid(), ::getegid(), ::getuid(),
                  ::getgid(), static_cast<std::uint32_t>(::getpid()),
                  procNumber("/proc/self/sessionid"), static_cast<std::uint32_t>(me.startTime)}));

    // Far more replies than the kernel holds for one connection: they wait
    // for the client to read them.
    for (int i = 0; i < 40; ++i) {
        EXPECT_TRUE(connection->sendReply(
            *event(0).message,
            {{"n", Value::integer(i)}, {"pad", Value::data(plist::Bytes(100'000))}}));
    }
    plist::Bytes buf(1 << 20);
    for (int i = 0; i < 40; ++i) {
        ssize_t n = 0;
        ASSERT_TRUE(testing::runUntil(queue, [&] {
            return (n = ::recv(client.get(), buf.data(), buf.size(), MSG_DONTWAIT)) > 8;
        }));
        EXPECT_EQ(std::string(buf.begin(), buf.begin() + 8), "bplist00");
        auto reply = plist::decode(std::span<const std::uint8_t>(buf).first(n));
        EXPECT_EQ(*reply.value().find("n"), Value::integer(i));
    }

    // The connection goes on until it is cancelled, and then ends once,
    // however often it is cancelled and whether or not the client stays.
    connection->cancel();
    connection->cancel();
    EXPECT_EQ(event(cases.size()).kind, Kind::ConnectionInvalid);
    char c;
    EXPECT_EQ(::recv(client.get(), &c, 1, 0), 0);  // the client sees the end
    client.reset();
    testing::runFor(queue, 30ms);
    EXPECT_EQ(events.size(), cases.size() + 1);
}

// Out of descriptors, the listener waits and tries again rather than report
// an error (which ends the daemon): the waiting connections are taken once
// descriptors are free, and one line says it paused.
TEST_F(MessageServiceTest, OutOfDescriptorsPausesAcceptingAndEndsNothing) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizers' runtime needs descriptors of its own to report";
#endif
    int accepted = 0;
    listener->setEventHandler([&](const ListenerEvent& e) {
        ASSERT_EQ(e.kind, ListenerEvent::Kind::NewConnection) << e.description;
        ++accepted;
    });
    std::vector<UniqueFd> clients;
    for (int i = 0; i < 3; ++i) {
        clients.push_back(connectTo(path));
    }
    rlimit saved{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
    // Room for no new descriptor at all.
    const int highest = ::dup(0);
    ::close(highest);
    const rlimit tight{static_cast<rlim_t>(highest), saved.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
    testing::runFor(queue, 300ms);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &saved), 0);
    EXPECT_EQ(accepted, 0);
    EXPECT_TRUE(testing::runUntil(queue, [&] { return accepted == 3; }));
    EXPECT_EQ(log.countStartingWith("WARNING: Not accepting connections for a moment: "), 1U);
}

// A client gone before its request is read: the request still arrives, then
// the end, once.
TEST_F(MessageServiceTest, HangUpEndsTheConnectionExactlyOnce) {
    UniqueFd client = connectTo(path);
    ASSERT_TRUE(send(client.get(), binary({{"commandString", Value("list")}})));
    client.reset();
    EXPECT_EQ(event(0).kind, Kind::Message);
    EXPECT_EQ(event(1).kind, Kind::ConnectionInvalid);
    EXPECT_FALSE(connection->sendReply(*event(0).message, {}));
    connection->cancel();
    testing::runFor(queue, 30ms);
    EXPECT_EQ(events.size(), 2U);
}

// One user's connections beyond the cap are closed at once, one line says
// so, and another user still gets in; a place is given back when its
// connection ends.
TEST_F(MessageServiceTest, OneUserIsCappedAndOthersStillGetIn) {
    std::vector<std::shared_ptr<MessageConnection>> held;
    listener->setEventHandler([&](const ListenerEvent& e) { held.push_back(e.connection); });
    const std::size_t cap = UnixMessageService::kMaxConnectionsPerUser;
    std::vector<UniqueFd> clients;
    for (std::size_t i = 0; i < cap + 3; ++i) {
        clients.push_back(connectTo(path));
    }
    ASSERT_TRUE(testing::runUntil(queue, [&] {
        return std::count_if(clients.begin(), clients.end(), [](const UniqueFd& c) {
                   char b = 0;
                   return ::recv(c.get(), &b, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
               }) == 3;
    }));
    EXPECT_EQ(held.size(), cap);
    EXPECT_EQ(log.countStartingWith("WARNING: Refused 1 connections from uid 0: a user may hold "
                                    "128, all users "),
              1U);
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    ASSERT_EQ(::seteuid(kNobody), 0);
    UniqueFd other = connectTo(path);
    ASSERT_EQ(::seteuid(0), 0);
    EXPECT_TRUE(testing::runUntil(queue, [&] { return held.size() == cap + 1; }));
    held.front()->cancel();
    UniqueFd again = connectTo(path);
    EXPECT_TRUE(testing::runUntil(queue, [&] { return held.size() == cap + 2; }));
}

// A client that sends without pause and never reads its replies: once a
// reply waits for it, its requests are no longer read; the replies that may
// wait are capped; another client's requests are still read.
TEST_F(MessageServiceTest, AClientThatNeverReadsIsNoLongerReadAndOthersAre) {
    UniqueFd neverReads = connectTo(path);
    const plist::Bytes status = binary({{"commandString", Value("status")}});
    auto flood = [&] {
        while (::send(neverReads.get(), status.data(), status.size(), MSG_DONTWAIT) > 0) {
        }
    };
    flood();
    ASSERT_TRUE(testing::runUntil(queue, [&] { return events.size() >= 200; }));
    const std::size_t read = events.size();
    std::size_t refused = 0;
    for (const PeerEvent& e : events) {
        refused += connection->sendReply(*e.message, {{"pad", Value::data(plist::Bytes(100'000))}})
                       ? 0
                       : 1;
    }
    EXPECT_GT(refused, 0U);
    flood();
    testing::runFor(queue, 50ms);
    EXPECT_EQ(events.size(), read);
    UniqueFd other = connectTo(path);
    ASSERT_TRUE(send(other.get(), status));
    EXPECT_EQ(event(read).kind, Kind::Message);
}

}  // namespace
}  // namespace tessary
