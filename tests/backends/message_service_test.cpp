#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

#include "backends/event_loop.h"
#include "base/unique_fd.h"
#include "platform/linux/peer_identity.h"
#include "platform/linux/unix_message_service.h"
#include "plist/codec.h"
#include "support/temp_dir.h"

namespace tessary {
namespace {

using namespace std::chrono_literals;
using linux_backend::FormIdentity;
using linux_backend::UnixMessageService;
using plist::Value;

constexpr std::uint32_t kNobody = 65534;

plist::Bytes binary(const plist::Dictionary& d) {
    return plist::encode(Value(d), plist::Format::Binary).value();
}

UniqueFd connectTo(const std::string& path) {
    UniqueFd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
    if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        return UniqueFd();
    }
    const int big = 1 << 20;  // room for the oversize datagrams
    (void)::setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUFFORCE, &big, sizeof big);
    return fd;
}

bool sendBytes(int fd, const plist::Bytes& bytes) {
    return ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
}

// The next datagram, or none when none is waiting.
std::optional<plist::Bytes> receive(int fd) {
    plist::Bytes buf(1 << 20);
    const ssize_t n = ::recv(fd, buf.data(), buf.size(), MSG_DONTWAIT);
    if (n < 0) {
        return std::nullopt;
    }
    buf.resize(static_cast<std::size_t>(n));
    return buf;
}

std::uint32_t procNumber(const std::string& file) {
    std::uint32_t v = 0;
    std::ifstream(file) >> v;
    return v;
}

FormIdentity ownIdentity() {
    return linux_backend::ownFormIdentity().value();
}

Value formValue(const FormIdentity& id) {
    const auto f = linux_backend::encodeExternalForm(id);
    return Value::data(plist::Bytes(f.begin(), f.end()));
}

// The listener on a temporary path, with every event it and its connections
// deliver recorded.
class MessageServiceTest : public ::testing::Test {
  protected:
    struct Peer {
        std::shared_ptr<MessageConnection> connection;
        std::vector<PeerEvent> events;
    };

    void SetUp() override {
        listener = service.createListener("com.orvane.tessaryd");
        ASSERT_NE(listener, nullptr);
        listener->setEventHandler([this](const ListenerEvent& e) {
            if (e.kind != ListenerEvent::Kind::NewConnection) {
                listenerErrors.push_back(e.description);
                return;
            }
            auto peer = std::make_unique<Peer>();
            Peer* p = peer.get();
            p->connection = e.connection;
            p->connection->setEventHandler([p](const PeerEvent& pe) { p->events.push_back(pe); });
            p->connection->activate();
            peers.push_back(std::move(peer));
        });
        listener->activate();
    }

    // Waits for the `n`th event of the first connection.
    const PeerEvent& event(std::size_t n) {
        EXPECT_TRUE(testing::runUntil(
            queue, [&] { return !peers.empty() && peers[0]->events.size() > n; }));
        if (peers.empty() || peers[0]->events.size() <= n) {
            static const PeerEvent kNone{PeerEvent::Kind::Error, std::nullopt, "none"};
            return kNone;
        }
        return peers[0]->events[n];
    }

    // The form field of the `n`th event, as it arrived.
    plist::Bytes formOf(std::size_t n) {
        const PeerEvent& e = event(n);
        EXPECT_EQ(e.kind, PeerEvent::Kind::Message) << e.description;
        if (!e.message) {
            return {};
        }
        auto it = e.message->fields.find(UnixMessageService::kFormKey);
        return it != e.message->fields.end() && it->second.data() ? *it->second.data()
                                                                  : plist::Bytes{0xEE};
    }

    testing::TempDir dir;
    std::string path = dir / "sock";
    linux_backend::SdEventQueue queue;
    UnixMessageService service{queue, path};
    std::unique_ptr<MessageListener> listener;
    std::vector<std::string> listenerErrors;
    std::vector<std::unique_ptr<Peer>> peers;
};

TEST_F(MessageServiceTest, RequestAndReplyRoundTrip) {
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0666U);

    UniqueFd client = connectTo(path);
    ASSERT_TRUE(client);
    const FormIdentity me = ownIdentity();
    const plist::Dictionary request{
        {"commandString", Value("status")},
        {"authorizationExternalFormData", formValue(me)},
        {"argumentsData", Value::data(binary({{"service", Value("a")}}))},
        {"other", Value::integer(7)}};
    ASSERT_TRUE(sendBytes(client.get(), binary(request)));

    const PeerEvent& first = event(0);
    ASSERT_EQ(first.kind, PeerEvent::Kind::Message) << first.description;
    EXPECT_EQ(Value(first.message->fields), Value(request));
    EXPECT_EQ(peers[0]->connection->peerPid(), ::getpid());
    const linux_backend::AuditTokenWords expected{procNumber("/proc/self/loginuid"),
                                                  ::geteuid(),
                                                  ::getegid(),
                                                  ::getuid(),
                                                  ::getgid(),
                                                  static_cast<std::uint32_t>(::getpid()),
                                                  procNumber("/proc/self/sessionid"),
                                                  static_cast<std::uint32_t>(me.startTime)};
    EXPECT_EQ(linux_backend::decodeAuditToken(first.message->auditToken), expected);

    // Each request on the connection gets its own reply, in order.
    ASSERT_TRUE(sendBytes(client.get(), binary({{"commandString", Value("list")}})));
    ASSERT_EQ(event(1).kind, PeerEvent::Kind::Message);
    for (int code : {0, 1}) {
        const plist::Dictionary reply{{"returnCodeInteger", Value::integer(code)},
                                      {"replyData", Value::data({1, 2, 3})}};
        EXPECT_TRUE(peers[0]->connection->sendReply(*event(code).message, reply));
        auto got = receive(client.get());
        ASSERT_TRUE(got);
        EXPECT_EQ(std::string(got->begin(), got->begin() + 8), "bplist00");
        EXPECT_EQ(plist::decode(std::span<const std::uint8_t>(*got)).value(), Value(reply));
    }
}

TEST_F(MessageServiceTest, ReplacesAStaleSocketButNothingElse) {
    // The listener of the fixture has gone away without removing its socket.
    listener.reset();
    EXPECT_NE(service.createListener("again"), nullptr);

    testing::writeFile(dir / "file", "keep");
    UnixMessageService onFile(queue, dir / "file");
    EXPECT_EQ(onFile.createListener("x"), nullptr);
    EXPECT_EQ(testing::readFile(dir / "file"), "keep");
}

TEST_F(MessageServiceTest, DatagramsThatAreNotKeyedMessagesAreErrors) {
    UniqueFd client = connectTo(path);
    auto xml = plist::encode(Value(plist::Dictionary{{"commandString", Value("list")}}),
                             plist::Format::Xml)
                   .value();
    auto array = plist::encode(Value(plist::Array{Value("list")}), plist::Format::Binary).value();
    const std::vector<plist::Bytes> bad = {
        {'h', 'e', 'l', 'l', 'o'}, xml, array, {}, {'b', 'p', 'l', 'i', 's', 't', '0', '0', 1}};
    for (const auto& bytes : bad) {
        ASSERT_TRUE(sendBytes(client.get(), bytes));
    }
    ASSERT_TRUE(sendBytes(client.get(), binary({{"commandString", Value("list")}})));
    for (std::size_t i = 0; i < bad.size(); ++i) {
        EXPECT_EQ(event(i).kind, PeerEvent::Kind::Error) << "datagram " << i;
        EXPECT_FALSE(event(i).description.empty());
    }
    // The connection goes on until it is cancelled.
    EXPECT_EQ(event(bad.size()).kind, PeerEvent::Kind::Message);
    peers[0]->connection->cancel();
    EXPECT_EQ(event(bad.size() + 1).kind, PeerEvent::Kind::ConnectionInvalid);
    char c;
    EXPECT_EQ(::recv(client.get(), &c, 1, 0), 0);  // the client sees the end
    testing::runFor(queue, 30ms);
    EXPECT_EQ(peers[0]->events.size(), bad.size() + 2);
}

TEST_F(MessageServiceTest, DatagramOverTheLimitArrivesWithoutFields) {
    // A request of exactly the limit is read whole; one byte more is not.
    auto requestOfSize = [](std::size_t size) {
        plist::Bytes filler(size);
        plist::Bytes bytes = binary({{"commandString", Value("x")}, {"f", Value::data(filler)}});
        filler.resize(2 * size - bytes.size());
        return binary({{"commandString", Value("x")}, {"f", Value::data(filler)}});
    };
    const plist::Bytes atLimit = requestOfSize(UnixMessageService::kMaxDatagram);
    const plist::Bytes overLimit = requestOfSize(UnixMessageService::kMaxDatagram + 1);
    ASSERT_EQ(atLimit.size(), UnixMessageService::kMaxDatagram);
    ASSERT_EQ(overLimit.size(), UnixMessageService::kMaxDatagram + 1);

    UniqueFd client = connectTo(path);
    ASSERT_TRUE(sendBytes(client.get(), atLimit));
    ASSERT_TRUE(sendBytes(client.get(), overLimit));
    ASSERT_TRUE(sendBytes(client.get(), binary({{"commandString", Value("list")}})));
    ASSERT_EQ(event(0).kind, PeerEvent::Kind::Message);
    EXPECT_EQ(event(0).message->fields.size(), 2U);
    ASSERT_EQ(event(1).kind, PeerEvent::Kind::Message);
    EXPECT_TRUE(event(1).message->fields.empty());
    ASSERT_EQ(event(2).kind, PeerEvent::Kind::Message);
    EXPECT_EQ(event(2).message->fields.size(), 1U);
}

TEST_F(MessageServiceTest, FormsThatDoNotNameTheSenderArriveEmpty) {
    const FormIdentity me = ownIdentity();
    const auto honest = linux_backend::encodeExternalForm(me);
    const std::vector<std::pair<Value, plist::Bytes>> cases = {
        {formValue(me), plist::Bytes(honest.begin(), honest.end())},
        {formValue({static_cast<std::uint32_t>(::getppid()), me.uid, me.startTime}), {}},
        {formValue({me.pid, kNobody, me.startTime}), {}},
        {formValue({me.pid, me.uid, me.startTime + 1}), {}},
        // Other lengths are the daemon's to refuse.
        {Value::data(plist::Bytes(31, 7)), plist::Bytes(31, 7)},
    };
    UniqueFd client = connectTo(path);
    for (const auto& [form, expected] : cases) {
        ASSERT_TRUE(sendBytes(client.get(), binary({{"commandString", Value("list")},
                                                    {UnixMessageService::kFormKey, form}})));
    }
    for (std::size_t i = 0; i < cases.size(); ++i) {
        EXPECT_EQ(formOf(i), cases[i].second) << "case " << i;
    }
}

// A process of another uid: its own form is honoured and names it in the
// token; a form claiming root is not.
TEST_F(MessageServiceTest, AnotherUsersFormBindsToThatUser) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to change uid";
    }
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        if (::setresgid(kNobody, kNobody, kNobody) != 0 ||
            ::setresuid(kNobody, kNobody, kNobody) != 0) {
            ::_exit(1);
        }
        UniqueFd fd = connectTo(path);
        const FormIdentity id = ownIdentity();
        for (std::uint32_t uid : {id.uid, 0U}) {
            (void)sendBytes(
                fd.get(),
                binary({{"commandString", Value("list")},
                        {UnixMessageService::kFormKey, formValue({id.pid, uid, id.startTime})}}));
        }
        ::_exit(0);
    }
    const auto childStart = linux_backend::processStartTime(child).value();
    EXPECT_EQ(formOf(0).size(), 32U);
    EXPECT_TRUE(formOf(1).empty());
    EXPECT_EQ(linux_backend::decodeAuditToken(event(0).message->auditToken),
              (linux_backend::AuditTokenWords{procNumber("/proc/self/loginuid"), kNobody, kNobody,
                                              kNobody, kNobody, static_cast<std::uint32_t>(child),
                                              procNumber("/proc/self/sessionid"),
                                              static_cast<std::uint32_t>(childStart)}));
    EXPECT_EQ(event(2).kind, PeerEvent::Kind::ConnectionInvalid);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(MessageServiceTest, HangUpEndsTheConnectionExactlyOnce) {
    {
        UniqueFd client = connectTo(path);
        ASSERT_TRUE(sendBytes(client.get(), binary({{"commandString", Value("list")}})));
    }  // gone before the request is read: the request still arrives first
    EXPECT_EQ(event(0).kind, PeerEvent::Kind::Message);
    EXPECT_EQ(event(1).kind, PeerEvent::Kind::ConnectionInvalid);
    Peer& peer = *peers[0];
    EXPECT_FALSE(peer.connection->sendReply(*peer.events[0].message, {}));
    peer.connection->cancel();
    testing::runFor(queue, 30ms);
    EXPECT_EQ(peer.events.size(), 2U);

    // Cancelled by the daemon, then left by the client: still one end.
    UniqueFd second = connectTo(path);
    ASSERT_TRUE(testing::runUntil(queue, [&] { return peers.size() == 2; }));
    peers[1]->connection->cancel();
    peers[1]->connection->cancel();
    second.reset();
    testing::runFor(queue, 30ms);
    ASSERT_EQ(peers[1]->events.size(), 1U);
    EXPECT_EQ(peers[1]->events[0].kind, PeerEvent::Kind::ConnectionInvalid);
}

TEST_F(MessageServiceTest, RepliesWaitForAClientThatReadsLate) {
    UniqueFd client = connectTo(path);
    ASSERT_TRUE(sendBytes(client.get(), binary({{"commandString", Value("list")}})));
    ASSERT_EQ(event(0).kind, PeerEvent::Kind::Message);
    // Far more than the kernel holds for one connection.
    constexpr int kReplies = 40;
    for (int i = 0; i < kReplies; ++i) {
        EXPECT_TRUE(peers[0]->connection->sendReply(
            *event(0).message,
            {{"n", Value::integer(i)}, {"pad", Value::data(plist::Bytes(100 * 1024))}}));
    }
    int next = 0;
    EXPECT_TRUE(testing::runUntil(queue, [&] {
        while (auto got = receive(client.get())) {
            auto reply = plist::decode(std::span<const std::uint8_t>(*got)).value();
            EXPECT_EQ(reply.find("n")->asInteger()->asSigned(), next);
            ++next;
        }
        return next == kReplies;
    }));
}

// A listening socket shut down under the listener: accept fails for good.
TEST_F(MessageServiceTest, AcceptFailureIsAListenerError) {
    for (int fd = 0; fd < 1024; ++fd) {
        sockaddr_un a{};
        socklen_t len = sizeof a;
        int listening = 0;
        socklen_t optlen = sizeof listening;
        if (::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0 &&
            a.sun_family == AF_UNIX && path == a.sun_path &&
            ::getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &optlen) == 0 && listening) {
            ASSERT_EQ(::shutdown(fd, SHUT_RDWR), 0);
        }
    }
    ASSERT_TRUE(testing::runUntil(queue, [&] { return !listenerErrors.empty(); }));
    EXPECT_NE(listenerErrors[0].find("accept"), std::string::npos) << listenerErrors[0];
    testing::runFor(queue, 20ms);
    EXPECT_EQ(listenerErrors.size(), 1U);  // reported once, then no longer watched
}

}  // namespace
}  // namespace tessary
