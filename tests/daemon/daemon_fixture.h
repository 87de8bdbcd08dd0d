#pragma once

#include <gtest/gtest.h>

#include "daemon/daemon_info.h"
#include "daemon/supervisor.h"
#include "support/test_platform.h"

namespace tessary::testing {

// A supervisor on the doubles, with an app bundle whose version matches the
// daemon's, and watchers that record how start-up made them.
class DaemonFixture : public ::testing::Test {
  protected:
    static constexpr std::int32_t kClientPid = 4242;

    DaemonFixture() {
        setVersions(kDaemonVersion, kDaemonVersion);
        std::filesystem::create_directories(t.paths.appResources());
        WatcherFactories watchers;
        watchers.startPowerWatcher = [this](std::function<void()> sleep,
                                            std::function<void()> wake) {
            steps.push_back("startPowerWatcher");
            willSleep = std::move(sleep);
            didWake = std::move(wake);
        };
        watchers.makeAppWatcher =
            [this](const std::string& path) -> std::optional<WatcherFactories::AppWatcher> {
            if (!std::filesystem::exists(path)) {
                return std::nullopt;
            }
            return WatcherFactories::AppWatcher{[this](std::function<void()> change,
                                                       std::function<void()> replaced,
                                                       std::function<void()> removed) {
                steps.push_back("startAppWatcher");
                willChange = std::move(change);
                wasReplaced = std::move(replaced);
                wasRemoved = std::move(removed);
            }};
        };
        supervisor.setWatcherFactories(std::move(watchers));
    }

    void setVersions(const std::string& daemon, const std::string& app) {
        t.bundleInfo.dictionaries[t.paths.installedDaemon()] =
            plist::Value(plist::Dictionary{{"CFBundleVersion", plist::Value(daemon)}});
        t.bundleInfo.dictionaries[t.paths.appBundle()] =
            plist::Value(plist::Dictionary{{"CFBundleShortVersionString", plist::Value(app)}});
    }

    // init and start; the listener is then open when the app matches.
    void startDaemon() {
        supervisor.init();
        supervisor.start();
    }

    // A connected client: the listener hands the supervisor a connection.
    FakeConnection& connect(std::int32_t pid = kClientPid, std::uint32_t uid = 501) {
        auto c = std::make_shared<FakeConnection>(pid, uid);
        connections.push_back(c);
        t.messages.listener->deliver({ListenerEvent::Kind::NewConnection, c, ""});
        return *c;
    }

    // A form the authorization double knows, holding `rights`.
    AuthorizationExternalForm grantedForm(std::set<std::string> rights = {
                                              "system.privilege.admin"}) {
        AuthorizationExternalForm form{};
        form[0] = static_cast<std::uint8_t>(++forms);
        t.authorization.grantForm(form, std::move(rights));
        return form;
    }

    static plist::Bytes bytesOf(const plist::Value& v) {
        return plist::encode(v, plist::Format::Binary).value();
    }
    static plist::Value dataOf(const AuthorizationExternalForm& form) {
        return plist::Value::data(plist::Bytes(form.begin(), form.end()));
    }

    // Sends one request and returns the reply, if one came.
    std::optional<plist::Dictionary> request(FakeConnection& c, plist::Dictionary fields) {
        const std::size_t before = c.replies.size();
        c.deliver({PeerEvent::Kind::Message, KeyedMessage{std::move(fields), {}}, ""});
        if (c.replies.size() == before) {
            return std::nullopt;
        }
        return c.replies.back();
    }

    // A request with a granted form and the given arguments; the reply's
    // return code and decoded reply data.
    struct Answer {
        std::int64_t code = -1;
        std::optional<plist::Value> data;
    };
    Answer command(const std::string& name, plist::Dictionary arguments = {},
                   bool withForm = true) {
        plist::Dictionary fields{{"commandString", plist::Value(name)}};
        if (withForm) {
            fields.insert_or_assign("authorizationExternalFormData", dataOf(grantedForm()));
        }
        if (!arguments.empty()) {
            fields.insert_or_assign(
                "argumentsData", plist::Value::data(bytesOf(plist::Value(std::move(arguments)))));
        }
        if (connections.empty()) {
            connect();
        }
        auto reply = request(*connections.front(), std::move(fields));
        Answer a;
        if (!reply) {
            return a;
        }
        a.code = reply->at("returnCodeInteger").asInteger()->asSigned();
        if (auto it = reply->find("replyData"); it != reply->end()) {
            a.data = plist::decode(std::span<const std::uint8_t>(*it->second.data())).value();
        }
        return a;
    }

    TestPlatform t;
    TYSupervisor supervisor{t.platform};
    std::vector<std::string> steps;
    std::function<void()> willSleep, didWake, willChange, wasReplaced, wasRemoved;
    std::vector<std::shared_ptr<FakeConnection>> connections;
    int forms = 0;
};

}  // namespace tessary::testing
