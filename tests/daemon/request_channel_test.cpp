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

    // Malformed requests get no reply and keep the connection. A user's
    // first of a minute is logged, cut short; the rest are counted in one
    // line when the minute ends.
    t.log.clear();
    const std::vector<Dictionary> malformed = {
        {{"commandString", Value::data(plist::Bytes(100000, 'l'))}},
        {{"commandString", Value("list")}, {"argumentsData", Value("not data")}},
        {{"commandString", Value("list")},
         {"authorizationExternalFormData", Value::data(plist::Bytes(31))}},
        {{"commandString", Value("list")},
         {"authorizationExternalFormData", Value::data(plist::Bytes(33))}},
    };
    for (const auto& fields : malformed) {
        EXPECT_FALSE(request(c, fields)) << Value(fields).description();
    }
    EXPECT_FALSE(c.cancelled);
    EXPECT_EQ(command("frobnicate").code, 1);  // unknown: fails without a word
    ASSERT_EQ(t.log.countStartingWith("error deserializing request: "), 1U);
    EXPECT_TRUE(t.log.lines()[0].size() < 600 && t.log.lines()[0].ends_with(" bytes)"));
    EXPECT_FALSE(request(connect(kClientPid + 1, 502), malformed[1]));  // another user's own
    t.queue.advance(std::chrono::minutes(1));
    EXPECT_EQ(t.log.lines().at(2),
              "WARNING: 3 more malformed requests from uid 501 were not logged");
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

    // Arguments that cannot be used: garbage, a list that would build 2^25
    // values out of under 200 bytes, one nested deeper than any request, a
    // string that is not UTF-8, and a top level that is not a dictionary.
    HandMadeList latin1;
    latin1.add(latin1.dictionary({{1, 2}}));
    latin1.add(HandMadeList::string("service"));
    latin1.add(HandMadeList::string("\xC0\xAF"));
    const std::vector<std::string> unreadable = {
        "xy",           HandMadeList::nested(24, 2), HandMadeList::nested(20000, 1),
        latin1.bytes(), "<plist><array/></plist>",   "<plist><string>service</string></plist>"};
    for (const char* command : {"list", "status"}) {
        for (const std::string& arguments : unreadable) {
            reply =
                request(c, {{"commandString", Value(command)},
                            {"authorizationExternalFormData", formData},
                            {"argumentsData", Value::data({arguments.begin(), arguments.end()})}});
            EXPECT_EQ(reply->at("returnCodeInteger"), Value::integer(1)) << command;
        }
    }
    EXPECT_EQ(t.log.countStartingWith("couldn't deserialize arguments dictionary"),
              2 * unreadable.size());
    EXPECT_EQ(t.log.lines().size(), 2 * unreadable.size());
}

TEST_F(RequestChannelTest, PeerAndListenerEventsThatAreNotMessages) {
    auto& c = connect();
    c.deliver({PeerEvent::Kind::Error, std::nullopt, "datagram is not a dictionary"});
    EXPECT_TRUE(c.cancelled);
    connect(kClientPid + 1, 502).deliver({PeerEvent::Kind::Error, std::nullopt, ""});
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
