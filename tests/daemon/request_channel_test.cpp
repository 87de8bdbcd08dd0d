#include "daemon_fixture.h"

namespace tessary {
namespace {

using plist::Dictionary;
using plist::Value;

class RequestChannelTest : public testing::DaemonFixture {
  protected:
    RequestChannelTest() {
        startDaemon();
        t.log.clear();
    }
};

TEST_F(RequestChannelTest, StatusNeedsNoFormButAResolvableClient) {
    EXPECT_EQ(t.messages.names, (std::vector<std::string>{"com.orvane.tessaryd"}));
    const auto a = command("status", {}, false);
    EXPECT_EQ(a.code, 0);
    EXPECT_EQ(a.data.value(), Value(Dictionary{{"status", Value("unconfigured")}}));
    // The code-signing layer found the client through the token's address.
    EXPECT_EQ(t.codeSigning.lastPid, kClientPid);

    t.codeSigning.resolves = false;
    const auto refused = command("status", {}, false);
    EXPECT_EQ(refused.code, 1);
    EXPECT_FALSE(refused.data);
    EXPECT_TRUE(t.log.empty());
}

TEST_F(RequestChannelTest, AdminCommandsNeedAFormHoldingTheRight) {
    EXPECT_EQ(command("list", {}, false).code, 1);
    EXPECT_EQ(t.log.lines(), (std::vector<std::string>{"no auth_external_form"}));

    t.log.clear();
    AuthorizationExternalForm unknown{};
    unknown.fill(0xEE);
    auto& c = connect();
    auto reply = request(c, {{"commandString", Value("list")},
                             {"authorizationExternalFormData",
                              Value::data(plist::Bytes(unknown.begin(), unknown.end()))}});
    EXPECT_EQ(reply->at("returnCodeInteger"), Value::integer(1));
    EXPECT_EQ(t.log.lines(), (std::vector<std::string>{"Relkamport() failed: -60001"}));

    t.log.clear();
    const auto weak = grantedForm({"some.other.right"});
    reply = request(c, {{"commandString", Value("list")},
                        {"authorizationExternalFormData",
                         Value::data(plist::Bytes(weak.begin(), weak.end()))}});
    EXPECT_EQ(reply->at("returnCodeInteger"), Value::integer(1));
    EXPECT_EQ(reply->count("replyData"), 0U);
    EXPECT_EQ(t.log.lines(), (std::vector<std::string>{"Vestigrant() failed: -60005"}));

    t.log.clear();
    EXPECT_EQ(command("list").code, 0);
    EXPECT_TRUE(t.log.empty());
}

TEST_F(RequestChannelTest, MalformedRequestsGetNoReplyAndKeepTheConnection) {
    auto& c = connect();
    const std::vector<Dictionary> malformed = {
        {{"authorizationExternalFormData", Value::data(plist::Bytes(32))}},
        {{"commandString", Value::data(plist::Bytes{'l', 'i', 's', 't'})}},
        {{"commandString", Value("")}},
        {{"commandString", Value("list")},
         {"authorizationExternalFormData", Value::data(plist::Bytes(31))}},
        {{"commandString", Value("list")},
         {"authorizationExternalFormData", Value::data(plist::Bytes(33))}},
        {{"commandString", Value("list")}, {"argumentsData", Value("not data")}},
    };
    for (const auto& fields : malformed) {
        EXPECT_FALSE(request(c, fields)) << Value(fields).description();
    }
    EXPECT_EQ(t.log.countStartingWith("error deserializing request: "), malformed.size());
    EXPECT_FALSE(c.cancelled);
    // Still served afterwards; unknown commands fail without a word.
    EXPECT_TRUE(request(c, {{"commandString", Value("status")}, {"ignored", Value::integer(1)}}));
    EXPECT_EQ(command("frobnicate").code, 1);
    EXPECT_EQ(command(std::string("li\xC0\xAFst")).code, 1);  // not UTF-8
    EXPECT_EQ(t.log.lines().size(), malformed.size());
}

TEST_F(RequestChannelTest, ArgumentsAreDecodedAndCheckedBeforeTheHandler) {
    auto& c = connect();
    const auto form = grantedForm();
    const Value formData = Value::data(plist::Bytes(form.begin(), form.end()));

    // Empty arguments count as none: the handler still gets a dictionary.
    auto reply = request(c, {{"commandString", Value("list")},
                             {"authorizationExternalFormData", formData},
                             {"argumentsData", Value::data({})}});
    EXPECT_EQ(reply->at("returnCodeInteger"), Value::integer(0));

    reply = request(c, {{"commandString", Value("list")},
                        {"authorizationExternalFormData", formData},
                        {"argumentsData", Value::data({'x', 'y'})}});
    EXPECT_EQ(reply->at("returnCodeInteger"), Value::integer(1));
    EXPECT_EQ(t.log.lines(),
              (std::vector<std::string>{"couldn't deserialize arguments dictionary"}));

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
