// Arbitrary contents of the preferences file through every getter and
// mutator. A file that does not read as a dictionary must survive every
// mutator byte for byte; one that does must stay a dictionary that keeps the
// keys the daemon does not know.
#include <cstdint>
#include <cstdlib>
#include <fstream>

#include "doubles/faulty_file_operations.h"
#include "doubles/recording_system_log.h"
#include "plist/codec.h"
#include "prefs/preferences.h"
#include "support/temp_dir.h"

namespace {

using namespace tessary;

struct World {
    World() : paths(root.path()), prefs(paths, files, log) {
        std::filesystem::create_directories(paths.setupDirectory());
    }
    testing::TempDir root;
    Paths paths;
    testing::FaultyFileOperations files;
    testing::RecordingSystemLog log;
    TYSupervisorPreferences prefs;
};

std::string contents(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static World w;
    const std::string file = w.paths.preferencesFile();
    const std::string input(reinterpret_cast<const char*>(data), size);
    const auto original = plist::decode(std::string_view(input));
    const bool readable = original.ok() && original.value().isDictionary();
    const plist::Value label("com.example.fuzz");

    const std::vector<std::function<void()>> mutators = {
        [&] { w.prefs.setVersion("5.11.1"); },
        [&] { w.prefs.clearPreviousVersion(); },
        [&] {
            w.prefs.addDynamicServiceWithDictionary(
                plist::Value(plist::Dictionary{{"Label", label}}));
        },
        [&] { w.prefs.removeDynamicService("com.example.fuzz"); },
        [&] { w.prefs.savePreviouslyEnabledServices(); },
        [&] { w.prefs.restorePreviouslyEnabledServices(); },
        [&] { w.prefs.clearPreviouslyEnabledServices(); },
        [&] { w.prefs.setServiceEnabled("com.example.fuzz", true); },
        [&] { w.prefs.setServiceEnabled("com.example.fuzz", false); },
        [&] { w.prefs.clearEnabledServices(); },
        [&] { w.prefs.setProgramArgumentsForServiceJob(label, "s", "j"); },
        [&] { w.prefs.removeProgramArgumentsForService("s"); },
        [&] { w.prefs.setSocketsForServiceJob(label, "s", "j"); },
        [&] { w.prefs.removeSocketsForService("s"); },
        [&] { w.prefs.setStartCalendarIntervalsForServiceJob(label, "s", "j"); },
        [&] { w.prefs.removeStartCalendarIntervalsForService("s"); },
        [&] { w.prefs.setActivePromotionType("configured"); },
        [&] { w.prefs.setActivePromotionType(std::nullopt); },
    };
    for (const auto& mutate : mutators) {
        testing::writeFile(file, input);
        (void)w.prefs.version();
        (void)w.prefs.previousVersion();
        (void)w.prefs.dynamicServices();
        (void)w.prefs.previouslyEnabledServices();
        (void)w.prefs.serviceIsEnabled("com.example.fuzz");
        (void)w.prefs.serviceIsPreviouslyEnabled("com.example.fuzz");
        (void)w.prefs.programArgumentsForServiceJob("s", "j");
        (void)w.prefs.socketsForServiceJob("s", "j");
        (void)w.prefs.startCalendarIntervalsForServiceJob("s", "j");
        (void)w.prefs.preventsSleepIsDisabled();
        (void)w.prefs.activePromotionType();
        mutate();
        const std::string after = contents(file);
        if (!readable) {
            if (after != input) {
                std::abort();  // an unreadable file was replaced
            }
            continue;
        }
        auto now = plist::decode(std::string_view(after));
        if (!now || !now.value().isDictionary()) {
            // Writing can only fail for values the forms cannot hold, and then
            // the old file stays.
            if (after != input) {
                std::abort();
            }
            continue;
        }
        static const std::set<std::string> known = {"version",
                                                    "previousVersion",
                                                    "enabledServices",
                                                    "previouslyEnabledServices",
                                                    "dynamicServices",
                                                    "programArguments",
                                                    "sockets",
                                                    "startCalendarIntervals",
                                                    "activePromotionType"};
        for (const auto& [key, value] : *original.value().dictionary()) {
            if (known.count(key) != 0) {
                continue;
            }
            const plist::Value* kept = now.value().find(key);
            if (kept == nullptr || !(*kept == value)) {
                std::abort();  // a key the daemon does not know was lost
            }
        }
    }
    w.log.clear();
    return 0;
}
