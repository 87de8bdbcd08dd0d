#include "daemon_fixture.h"
#include "support/handmade_plist.h"

namespace tessary {
namespace {

using plist::Dictionary;
using plist::Value;
using testing::HandMadeList;

class RequestChannelTest : public testing::DaemonFixture {
  protected:
    RequestChannelTest() {
        startDaemon();
        t.log.clear();
    }
};

// Which callers may run what is the end-to-end tests' authorization matrix;
// here, the line each refusal leaves, and the refusals a real system cannot
// be made to give.
TEST_F(RequestChannelTest, RefusalsAndTheirLines) {
    t.codeSigning.resolves = false;
    EXPECT_EQ(command("status", {}, false).code, 1);
    EXPECT_TRUE(t.log.empty());
    t.codeSigning.resolves = true;

    EXPECT_EQ(command("list", {}, false).code, 1);
    AuthorizationExternalForm unknown{};
    unknown.fill(0xEE);
    auto& c = connect();
    auto reply = request(
        c, {{"commandString", Value("list")}, {"authorizationExternalFormData", dataOf(unknown)}});
    EXPECT_EQ(reply->at("returnCodeInteger"), Value::integer(1));
    reply =
        request(c, {{"commandString", Value("list")},
                    {"authorizationExternalFormData", dataOf(grantedForm({"some.other.right"}))}});
    EXPECT_EQ(reply->count("replyData"), 0U);
    EXPECT_EQ(t.log.lines(),
              (std::vector<std::string>{"no auth_external_form", "Relkamport() failed: -60001",
                                        "Vestigrant() failed: -60005"}));

    // Malformed requests get no reply, a line each, and keep the connection.
    t.log.clear();
    const std::vector<Dictionary> malformed = {
        {{"commandString", Value::data(plist::Bytes{'l', 'i', 's', 't'})}},
        {{"commandString", Value("list")}, {"argumentsData", Value("not data")}},
        {{"commandString", Value("list")},
         {"authorizationExternalFormData", Value::data(plist::Bytes(31))}},
        {{"commandString", Value("list")},
         {"authorizationExternalFormData", Value::data(plist::Bytes(33))}},
    };
    for (const auto& fields : malformed) {
        EXPECT_FALSE(request(c, fields)) << Value(fields).description();
    }
    EXPECT_EQ(t.log.countStartingWith("error deserializing request: "), malformed.size());
    EXPECT_FALSE(c.cancelled);
    EXPECT_EQ(command("frobnicate").code, 1);  // unknown: fails without a word
    EXPECT_EQ(t.log.lines().size(), malformed.size());
}

// Every command but "status" needs the administrator's right: without a
// form, or with one that lacks the right, it is refused before anything
// happens, whatever it would do.
TEST_F(RequestChannelTest, EveryCommandButStatusNeedsTheRight) {
    supervisor.preferences().setServiceEnabled("a", true);
    const std::string before = testing::readFile(t.paths.preferencesFile());
    const auto weak = grantedForm({"some.other.right"});
    auto& c = connect();
    for (const char* name : {"list", "enable", "disable", "reset", "programArguments", "sockets",
                             "startCalendarIntervals", "create", "destroy", "beginPromotion",
                             "endPromotion", "restoreServices", "demote"}) {
        for (const bool withForm : {false, true}) {
            Dictionary fields{
                {"commandString", Value(name)},
                {"argumentsData", Value::data(bytesOf(Value(Dictionary{
                                      {"service", Value("a")},
                                      {"serviceDictionary", testing::definition("new")}})))}};
            if (withForm) {
                fields.emplace("authorizationExternalFormData", dataOf(weak));
            }
            EXPECT_EQ(request(c, fields)->at("returnCodeInteger"), Value::integer(1)) << name;
        }
    }
    EXPECT_EQ(command("status", {}, false).code, 0);
    EXPECT_EQ(testing::readFile(t.paths.preferencesFile()), before);
    EXPECT_EQ(t.queue.pendingWork(), 0U);
    EXPECT_EQ(t.exitWatch.watchCount(kClientPid), 0U);
}

TEST_F(RequestChannelTest, ArgumentsAreDecodedAndCheckedBeforeTheHandler) {
    auto& c = connect();
    const Value formData = dataOf(grantedForm());

    // Empty arguments count as none: the handler still gets a dictionary.
    auto reply = request(c, {{"commandString", Value("list")},
                             {"authorizationExternalFormData", formData},
                             {"argumentsData", Value::data({})}});
    EXPECT_EQ(reply->at("returnCodeInteger"), Value::integer(0));

    // Arguments that cannot be read: garbage, a list that would build 2^25
    // values out of under 200 bytes, one nested deeper than any request, and
    // a string that is not UTF-8.
    HandMadeList latin1;
    latin1.add(latin1.dictionary({{1, 2}}));
    latin1.add(HandMadeList::string("service"));
    latin1.add(HandMadeList::string("\xC0\xAF"));
    const std::vector<std::string> unreadable = {"xy", HandMadeList::nested(24, 2),
                                                 HandMadeList::nested(20000, 1), latin1.bytes()};
    for (const std::string& arguments : unreadable) {
        reply = request(c, {{"commandString", Value("list")},
                            {"authorizationExternalFormData", formData},
                            {"argumentsData", Value::data({arguments.begin(), arguments.end()})}});
        EXPECT_EQ(reply->at("returnCodeInteger"), Value::integer(1));
    }
    EXPECT_EQ(t.log.countStartingWith("couldn't deserialize arguments dictionary"),
              unreadable.size());
    EXPECT_EQ(t.log.lines().size(), unreadable.size());

    // Arguments that are not a dictionary end the process.
    EXPECT_THROW(request(c, {{"commandString", Value("list")},
                             {"authorizationExternalFormData", formData},
                             {"argumentsData", Value::data(bytesOf(Value(plist::Array{})))}}),
                 testing::ProcessExited);
    EXPECT_EQ(t.process.exitStatus, 1);
}

TEST_F(RequestChannelTest, PeerAndListenerEventsThatAreNotMessages) {
    auto& c = connect();
    c.deliver({PeerEvent::Kind::Error, std::nullopt, "datagram is not a dictionary"});
    c.deliver({PeerEvent::Kind::Error, std::nullopt, ""});
    EXPECT_TRUE(c.cancelled);
    EXPECT_EQ(t.log.lines(),
              (std::vector<std::string>{"unexpected peer event: datagram is not a dictionary",
                                        "unexpected peer event"}));

    // A connection that goes away is released without a word.
    t.log.clear();
    std::weak_ptr<testing::FakeConnection> weak = connections.back();
    connections.clear();
    weak.lock()->deliver({PeerEvent::Kind::ConnectionInvalid, std::nullopt, ""});
    t.queue.runPending();
    EXPECT_TRUE(weak.expired());
    EXPECT_TRUE(t.log.empty());

    EXPECT_THROW(t.messages.listener->deliver({ListenerEvent::Kind::Error, nullptr, "EMFILE"}),
                 testing::ProcessExited);
    EXPECT_EQ(t.log.lines(), (std::vector<std::string>{"unexpected connection error: EMFILE"}));
    EXPECT_THROW(t.messages.listener->deliver({ListenerEvent::Kind::Other, nullptr, ""}),
                 testing::ProcessExited);
    EXPECT_EQ(t.log.lines().back(), "unexpected connection event");
}

}  // namespace
}  // namespace tessary
