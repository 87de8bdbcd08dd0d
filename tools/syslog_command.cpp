// syslog: writes one message into the system log, for shell scripts.
//
//   syslog -s -k Sender S -k Level N -k Message M [-k KEY VALUE]...
//
// M goes to syslog(3) under the identity S (default "syslog") at priority N
// (0 emergency to 7 debug; default 5, notice), facility user. Other keys are
// accepted and ignored. The message is required.
//
// Exit status: 0 written (syslog(3) itself reports nothing), 64 usage error.

#include <syslog.h>

#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

namespace {

constexpr int kExitSuccess = 0;
constexpr int kExitUsage = 64;

constexpr const char* kUsage =
    "usage: syslog -s -k Sender SENDER -k Level 0-7 -k Message MESSAGE [-k KEY VALUE]...\n";

int usageError(const std::string& message) {
    (void)std::fprintf(stderr, "syslog: %s\n%s", message.c_str(), kUsage);
    return kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && (std::string_view(argv[1]) == "-h" || std::string_view(argv[1]) == "--help")) {
        (void)std::fputs(kUsage, stdout);
        return kExitSuccess;
    }
    if (argc < 2 || std::string_view(argv[1]) != "-s") {
        return usageError("the only mode is -s (send)");
    }
    std::string sender = "syslog";
    int level = LOG_NOTICE;
    std::optional<std::string> message;
    for (int i = 2; i < argc; i += 3) {
        if (std::string_view(argv[i]) != "-k") {
            return usageError(std::string("expected -k, not \"") + argv[i] + "\"");
        }
        if (i + 2 >= argc) {
            return usageError("-k wants a KEY and a VALUE");
        }
        const std::string_view key = argv[i + 1];
        const std::string value = argv[i + 2];
        if (key == "Sender") {
            if (value.empty()) {
                return usageError("the Sender is empty");
            }
            sender = value;
        } else if (key == "Level") {
            if (value.size() != 1 || value[0] < '0' || value[0] > '7') {
                return usageError("the Level is a priority from 0 to 7, not \"" + value + "\"");
            }
            level = value[0] - '0';
        } else if (key == "Message") {
            message = value;
        }
    }
    if (!message) {
        return usageError("no Message given");
    }
    // openlog keeps the pointer: `sender` outlives the calls.
    ::openlog(sender.c_str(), LOG_PID, LOG_USER);
    ::syslog(LOG_USER | level, "%s", message->c_str());
    ::closelog();
    return kExitSuccess;
}
