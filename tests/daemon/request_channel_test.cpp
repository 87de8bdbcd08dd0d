#include "daemon_fixture.h"
#include "support/handmade_plist.h"

namespace tessary {
namespace {

using plist::Array;
using plist::Dictionary;
using plist::Value;
using testing::definition;
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

class CommandsTest : public testing::DaemonFixture {
  protected:
    CommandsTest() {
        for (const char* l : {"one", "two", "three"}) {
            t.addDefinition(std::string(l) + ".plist", definition(l));
        }
        prefs.setServiceEnabled("one", true);
        prefs.setServiceEnabled("three", true);
        // A machine set up earlier: start-up parks nothing.
        testing::writeFile(t.paths.setupDoneMarker(), "");
        startDaemon();
        t.log.clear();
    }
    TYSupervisorPreferences& prefs = supervisor.preferences();
};

TEST_F(CommandsTest, StatusReadsFourFacts) {
    auto status = [&] { return *command("status", {}, false).data->stringAt("status"); };
    prefs.setServiceEnabled("com.orvane.tessaryadmind.backend", true);
    EXPECT_EQ(status(), "configured");
    setVersions(kDaemonVersion, "5.11");
    EXPECT_EQ(status(), "unconfigured");
    setVersions(kDaemonVersion, kDaemonVersion);
    std::filesystem::remove(t.paths.setupDoneMarker());
    prefs.addDynamicServiceWithDictionary(definition("unused"));
    EXPECT_EQ(status(), "unconfigured");
    prefs.setServiceEnabled("a", true);
    prefs.savePreviouslyEnabledServices();  // one, three, backend, a: more than one
    EXPECT_EQ(status(), "updatable");
}

// Listing, switching, reset and the reload of a loaded job's override run
// against the real daemon in the end-to-end tests; what they cannot see:
// an override of a job that is not loaded, and a create that starts nothing.
TEST_F(CommandsTest, OverridesOfUnloadedJobsAndDynamicServicesStartNothing) {
    t.serviceManager.resetCounters();
    auto cal = command("startCalendarIntervals",
                       {{"service", Value("two")}, {"startCalendarIntervals", Value(Array{})}});
    EXPECT_EQ(cal.code, 0);
    EXPECT_EQ(*cal.data->find("startCalendarIntervals"), Value(Array{}));
    EXPECT_EQ(prefs.startCalendarIntervalsForServiceJob("two", "two").value(), Value(Array{}));
    EXPECT_EQ(command("sockets", {{"service", Value("one")}, {"job", Value("other")}}).code, 1);
    // The reply names the service and the job, the service's own when none
    // was given, and carries a value only when there is one.
    EXPECT_EQ(
        command("programArguments", {{"service", Value("two")}}).data.value(),
        Value(Dictionary{{"service", Value("two")},
                         {"job", Value("two")},
                         {"programArguments", Value(plist::stringArray({"/bin/sleep", "1000"}))}}));
    EXPECT_EQ(command("sockets", {{"service", Value("one")}, {"job", Value("one")}}).data.value(),
              Value(Dictionary{{"service", Value("one")}, {"job", Value("one")}}));

    const Value d = definition("dyn", {{"Extra", Value("kept")}});
    auto created = command("create", {{"serviceDictionary", d}});
    EXPECT_EQ(created.data.value(), Value(Dictionary{{"service", Value("dyn")}}));
    EXPECT_EQ(prefs.dynamicServices().value(), Value(Array{d}));
    EXPECT_EQ(command("create", {{"serviceDictionary", definition("one")}}).code, 1);
    EXPECT_EQ(t.serviceManager.asked().submitCalls, 0);

    // A stored definition that was never loaded is removed, yet the answer is 1.
    prefs.addDynamicServiceWithDictionary(definition("ghost"));
    EXPECT_EQ(command("destroy", {{"service", Value("ghost")}}).code, 1);
    EXPECT_EQ(prefs.dynamicServices().value(), Value(Array{d}));
}

// Without a service list (loading skipped), create stores and answers success
// but no service joins; destroy then removes the definition and answers 1.
class DynamicWithoutServicesTest : public testing::DaemonFixture {};

TEST_F(DynamicWithoutServicesTest, CreateWithoutAServiceList) {
    t.productInfo.installed = "5.9";
    t.productInfo.minimum = "5.10";
    startDaemon();
    EXPECT_EQ(command("create", {{"serviceDictionary", definition("late")}}).code, 0);
    EXPECT_FALSE(supervisor.services());
    EXPECT_TRUE(supervisor.preferences().dynamicServices().has_value());
    EXPECT_EQ(command("destroy", {{"service", Value("late")}}).code, 1);
    EXPECT_EQ(supervisor.preferences().dynamicServices().value(), Value(Array{}));
}

}  // namespace
}  // namespace tessary
