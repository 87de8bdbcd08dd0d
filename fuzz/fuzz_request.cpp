// One datagram, as the request socket would hand it over, through unpacking
// and dispatch into a supervisor on the role doubles. The only way out is a
// reply or none; a demotion's self-removal, which ends the process, is the
// one other path let through here.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "daemon/supervisor.h"
#include "plist/codec.h"
#include "support/test_platform.h"

namespace {

using namespace tessary;

struct World {
    World() {
        for (const char* label : {"com.example.a", "com.example.b"}) {
            t.addDefinition(std::string(label) + ".plist", testing::definition(label));
        }
        // The form the corpus uses: 32 bytes of 'A'.
        AuthorizationExternalForm form{};
        form.fill('A');
        t.authorization.grantForm(form, {"system.privilege.admin"});
        std::filesystem::create_directories(t.paths.appResources());
        t.bundleInfo.dictionaries[t.paths.installedDaemon()] =
            plist::Value(plist::Dictionary{{"CFBundleVersion", plist::Value("5.11.1")}});
        t.bundleInfo.dictionaries[t.paths.appBundle()] =
            plist::Value(plist::Dictionary{{"CFBundleShortVersionString", plist::Value("5.11.1")}});
        WatcherFactories watchers;
        watchers.makeAppWatcher = [](const std::string&) {
            return std::optional<WatcherFactories::AppWatcher>(
                WatcherFactories::AppWatcher{[](auto, auto, auto) {}});
        };
        supervisor.setWatcherFactories(std::move(watchers));
        supervisor.init();
        supervisor.start();
        connection = std::make_shared<testing::FakeConnection>(4242);
        t.messages.listener->deliver({ListenerEvent::Kind::NewConnection, connection, ""});
    }
    testing::TestPlatform t;
    TYSupervisor supervisor{t.platform};
    std::shared_ptr<testing::FakeConnection> connection;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static World w;
    PeerEvent event;
    // As the request socket decodes a datagram.
    auto decoded = plist::decode(std::span<const std::uint8_t>(data, size), plist::kRequestBudget,
                                 plist::Strings::KeepInvalid);
    if (decoded && decoded.value().isDictionary()) {
        event.kind = PeerEvent::Kind::Message;
        AuditToken token{};
        const std::int32_t pid = 4242;
        std::memcpy(token.data() + 20, &pid, sizeof pid);
        event.message = KeyedMessage{*decoded.value().dictionary(), token};
    } else {
        event.kind = PeerEvent::Kind::Error;
        event.description = "not a keyed message";
    }
    try {
        w.connection->deliver(event);
        // Deferred work (a demotion's self-removal) ends the process too.
        w.t.queue.runPending();
    } catch (const testing::ProcessExited&) {
    }
    const std::size_t replies = w.connection->replies.size();
    if (replies > 0) {
        const auto& reply = w.connection->replies.back();
        const plist::Value* rc =
            reply.count("returnCodeInteger") != 0 ? &reply.at("returnCodeInteger") : nullptr;
        if (rc == nullptr || !rc->asInteger() ||
            (rc->asInteger()->asSigned() != 0 && rc->asInteger()->asSigned() != 1)) {
            std::abort();  // only 0 and 1 are ever sent
        }
        w.connection->replies.clear();
    }
    w.t.log.clear();
    return 0;
}
