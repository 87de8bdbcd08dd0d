// Writes the preferences file in a tight loop until it is killed. State i has
// "version" = i and "enabledServices" = labels 0..i%50, so a reader can tell a
// whole state from a torn one.
#include <cstdio>
#include <string>

#include "doubles/recording_system_log.h"
#include "platform/linux/fs/posix_file_operations.h"
#include "prefs/preferences.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: prefs_writer ROOT\n");
        return 64;
    }
    tessary::Paths paths(argv[1]);
    tessary::linux_backend::PosixFileOperations files;
    tessary::testing::RecordingSystemLog log;
    tessary::TYSupervisorPreferences prefs(paths, files, log);
    for (long i = 0;; ++i) {
        tessary::plist::Array labels;
        for (long k = 0; k <= i % 50; ++k) {
            labels.emplace_back("com.example.service" + std::to_string(k));
        }
        tessary::plist::Dictionary d{{"version", tessary::plist::Value(std::to_string(i))},
                                     {"enabledServices", tessary::plist::Value(labels)}};
        if (!prefs.writePreferences(d)) {
            return 1;
        }
    }
}
