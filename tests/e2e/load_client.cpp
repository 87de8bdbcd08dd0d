// Many clients at once against a running tessaryd, each on its own
// connection and with a service of its own, sending a fixed mix of status,
// list, enable, disable and programArguments:
//
//   load_client CLIENTS REQUESTS [--survive-restarts]
//
// Every request must be answered with success, and each answer must say what
// the client's own earlier requests imply. With --survive-restarts a lost
// connection (the daemon killed and restarted by its service manager) is
// counted and reopened; the client repeats its last switch until it is
// acknowledged and prints "LABEL enabled|disabled" for each service, the state
// the daemon owes it. Exit status 0 when nothing was refused or wrong.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "client/tessary_client.h"

namespace {

using namespace std::chrono_literals;
using tessary::plist::Array;
using tessary::plist::Dictionary;
using tessary::plist::Value;
namespace client = tessary::client;

constexpr const char* kSocket = "/run/tessaryd/com.orvane.tessaryd";
// Status, list, programArguments, enable and disable, as an app's window
// asks them: mostly questions, a switch now and then (each switch makes the
// daemon bring every service in line with the service manager).
constexpr char kMix[] =
    "slesp"
    "slsps"
    "slsdp"
    "slsps"
    "slsps";
const Value kArguments(Array{Value("/bin/sleep"), Value("1000")});

std::atomic<long> sent{0}, answered{0}, wrong{0}, lost{0};

std::string labelOf(int client) {
    char label[32];
    std::snprintf(label, sizeof label, "com.example.load%02d", client);
    return label;
}

class Client {
  public:
    Client(int index, bool surviveRestarts)
        : label_(labelOf(index)),
          survive_(surviveRestarts),
          form_(client::makeAuthorizationForm().value()) {}

    void run(int requests) {
        // The service may be there from an earlier run.
        (void)ask("create",
                  {{"serviceDictionary", Value(Dictionary{{"Label", Value(label_)},
                                                          {"ProgramArguments", kArguments},
                                                          {"RunAtLoad", Value::boolean(true)}})}},
                  true);
        for (int k = 0; k < requests; ++k) {
            switch (kMix[k % (sizeof kMix - 1)]) {
                case 'e':
                    toggle(true);
                    break;
                case 'd':
                    toggle(false);
                    break;
                case 'l':
                    check(ask("list", {}),
                          [](const Value& r) { return r.find("enabledServices") != nullptr; });
                    break;
                case 'p':
                    // Every client's service has the same arguments: only the
                    // name in the reply tells that it answers this client.
                    check(ask("programArguments", service()), [this](const Value& r) {
                        return *r.find("programArguments") == kArguments &&
                               r.stringAt("service") != nullptr && *r.stringAt("service") == label_;
                    });
                    break;
                default:
                    check(ask("status", {}, false),
                          [](const Value& r) { return r.find("status") != nullptr; });
            }
        }
        // A switch whose answer was lost may or may not have happened.
        for (int tries = 0; survive_ && !acknowledged_ && tries < 20; ++tries) {
            toggle(enabled_);
        }
    }

    void report() const {
        std::printf("%s %s\n", label_.c_str(), enabled_ ? "enabled" : "disabled");
    }

  private:
    Dictionary service() const { return {{"service", Value(label_)}}; }

    void toggle(bool on) {
        const auto reply = ask(on ? "enable" : "disable", service());
        enabled_ = on;
        // A refusal is final; only a lost answer leaves the switch open.
        acknowledged_ = reply.ok();
        if (reply.ok() && reply.value().returnCode != 0) {
            ++wrong;
        }
    }

    template <typename Predicate>
    void check(const tessary::Result<client::Reply>& reply, Predicate good) {
        if (reply.ok() && (reply.value().returnCode != 0 || !reply.value().result ||
                           !good(*reply.value().result))) {
            ++wrong;
        }
    }

    tessary::Result<client::Reply> ask(const std::string& command, Dictionary arguments,
                                       bool withForm = true) {
        client::Request request{command, std::nullopt, std::nullopt};
        if (withForm) {
            request.authorizationForm = form_;
        }
        if (!arguments.empty()) {
            request.arguments = std::move(arguments);
        }
        ++sent;
        // A restarting daemon is given half a minute to come back.
        const auto deadline = std::chrono::steady_clock::now() + 30s;
        for (;;) {
            if (!connection_) {
                auto opened = client::Connection::open(kSocket, 5s);
                if (!opened) {
                    if (survive_ && std::chrono::steady_clock::now() < deadline) {
                        std::this_thread::sleep_for(50ms);
                        continue;
                    }
                    ++lost;
                    return opened.error();
                }
                connection_.emplace(std::move(opened.value()));
            }
            auto reply = connection_->send(request, 60s);
            if (reply.ok()) {
                ++answered;
                return reply;
            }
            connection_.reset();
            ++lost;
            if (!survive_) {
                std::fprintf(stderr, "%s: %s lost: %s\n", label_.c_str(), command.c_str(),
                             reply.error().description.c_str());
                return reply;
            }
            // The request may have run before the daemon went: a switch is
            // not repeated here but by the caller, which knows it.
            if (command == "enable" || command == "disable") {
                return reply;
            }
        }
    }

    std::string label_;
    bool survive_;
    tessary::AuthorizationExternalForm form_;
    std::optional<client::Connection> connection_;
    bool enabled_ = false;
    bool acknowledged_ = true;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: load_client CLIENTS REQUESTS [--survive-restarts]\n");
        return 64;
    }
    const int clients = std::atoi(argv[1]);
    const int requests = std::atoi(argv[2]);
    const bool survive = argc > 3 && std::strcmp(argv[3], "--survive-restarts") == 0;

    std::vector<Client> all;
    all.reserve(static_cast<std::size_t>(clients));
    for (int i = 0; i < clients; ++i) {
        all.emplace_back(i, survive);
    }
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> threads;
    for (auto& c : all) {
        threads.emplace_back([&c, requests] { c.run(requests); });
    }
    for (auto& t : threads) {
        t.join();
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    if (survive) {
        for (const auto& c : all) {
            c.report();
        }
    }
    std::fprintf(stderr, "load_client: %ld sent, %ld answered, %ld wrong, %ld lost in %.1f s\n",
                 sent.load(), answered.load(), wrong.load(), lost.load(), took.count());
    return wrong == 0 && (survive || lost == 0) ? 0 : 1;
}
