#include "prefs/preferences.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>

#include "doubles/faulty_file_operations.h"
#include "doubles/recording_system_log.h"
#include "plist/codec.h"
#include "support/python.h"
#include "support/temp_dir.h"

namespace tessary {
namespace {

using plist::Array;
using plist::Dictionary;
using plist::Value;
using testing::FaultyFileOperations;

Value strings(std::initializer_list<const char*> labels) {
    Array a;
    for (const char* l : labels) {
        a.emplace_back(l);
    }
    return Value(std::move(a));
}

class PreferencesTest : public ::testing::Test {
  protected:
    PreferencesTest() : paths(root.path()), prefs(paths, files, log) {
        std::filesystem::create_directories(paths.setupDirectory());
    }

    void store(const Dictionary& d, plist::Format f = plist::Format::Xml) {
        auto bytes = plist::encode(Value(d), f).value();
        testing::writeFile(paths.preferencesFile(), std::string(bytes.begin(), bytes.end()));
    }
    Dictionary stored() {
        auto v = plist::decode(std::string_view(testing::readFile(paths.preferencesFile())));
        EXPECT_TRUE(v.ok());
        return v.ok() ? *v.value().dictionary() : Dictionary{};
    }
    bool fileExists() { return std::filesystem::exists(paths.preferencesFile()); }
    // Identity and contents of the file: a rewrite changes the inode.
    std::pair<ino_t, std::string> fingerprint() {
        struct stat st {};
        ::stat(paths.preferencesFile().c_str(), &st);
        return {st.st_ino, testing::readFile(paths.preferencesFile())};
    }

    testing::TempDir root;
    Paths paths;
    FaultyFileOperations files;
    testing::RecordingSystemLog log;
    TYSupervisorPreferences prefs;
};

TEST_F(PreferencesTest, MissingFileReadsAsEmptyAndOnlyRealChangesCreateIt) {
    EXPECT_FALSE(prefs.serviceIsEnabled("a"));
    EXPECT_FALSE(prefs.preventsSleepIsDisabled());
    EXPECT_FALSE(prefs.version());
    EXPECT_FALSE(prefs.programArgumentsForServiceJob("a", "a"));
    EXPECT_EQ(prefs.preferences().value(), Value(Dictionary{}));

    prefs.setServiceEnabled("a", false);
    prefs.savePreviouslyEnabledServices();
    prefs.restorePreviouslyEnabledServices();
    prefs.removeDynamicService("a");
    prefs.removeSocketsForService("a");
    EXPECT_FALSE(fileExists());

    prefs.setServiceEnabled("a", true);
    ASSERT_TRUE(fileExists());
    EXPECT_TRUE(prefs.serviceIsEnabled("a"));
    EXPECT_FALSE(prefs.serviceIsEnabled("A"));
    EXPECT_TRUE(log.empty());
}

TEST_F(PreferencesTest, EnabledListOnlyChangesWhenItMust) {
    store({{"enabledServices", strings({"a", "b", "a"})}}, plist::Format::Binary);
    const auto before = fingerprint();
    prefs.setServiceEnabled("b", true);
    prefs.setServiceEnabled("c", false);
    EXPECT_EQ(fingerprint(), before);

    prefs.setServiceEnabled("a", false);
    EXPECT_EQ(stored().at("enabledServices"), strings({"b"}));
    prefs.setServiceEnabled("c", true);
    EXPECT_EQ(stored().at("enabledServices"), strings({"b", "c"}));
    prefs.clearEnabledServices();
    EXPECT_EQ(stored().count("enabledServices"), 0U);
}

TEST_F(PreferencesTest, SaveAndRestoreMoveLabelsInUnlikeWays) {
    store({{"enabledServices", strings({"a", "b"})},
           {"previouslyEnabledServices", strings({"b", "c"})}});
    prefs.savePreviouslyEnabledServices();
    EXPECT_EQ(stored().at("previouslyEnabledServices"), strings({"b", "c", "a"}));
    EXPECT_EQ(stored().at("enabledServices"), strings({}));  // the key stays, empty
    EXPECT_TRUE(prefs.serviceIsPreviouslyEnabled("a"));

    store({{"previouslyEnabledServices", strings({"a", "b", "a"})}});
    prefs.restorePreviouslyEnabledServices();
    EXPECT_EQ(stored().at("enabledServices"), strings({"a", "b"}));
    EXPECT_EQ(stored().count("previouslyEnabledServices"), 0U);  // the key goes

    store({{"enabledServices", strings({"x"})}, {"previouslyEnabledServices", strings({"a"})}});
    prefs.clearPreviouslyEnabledServices();
    EXPECT_EQ(stored(), (Dictionary{{"enabledServices", strings({"x"})}}));
}

TEST_F(PreferencesTest, VersionKeepsTheFirstPreviousVersion) {
    store({{"version", Value("4")}});
    prefs.setVersion("5");
    EXPECT_EQ(stored(), (Dictionary{{"version", Value("5")}, {"previousVersion", Value("4")}}));
    prefs.setVersion("6");
    EXPECT_EQ(stored().at("previousVersion"), Value("4"));
    EXPECT_EQ(stored().at("version"), Value("6"));

    prefs.clearPreviousVersion();
    prefs.setVersion("6");  // filled again, even with the same version
    EXPECT_EQ(stored().at("previousVersion"), Value("6"));

    prefs.setVersion(std::nullopt);  // version was present: previous stays
    EXPECT_EQ(stored(), (Dictionary{{"previousVersion", Value("6")}}));
    prefs.setVersion(std::nullopt);  // version absent: both go
    EXPECT_EQ(stored(), Dictionary{});

    const auto before = fingerprint();
    prefs.setVersion(std::nullopt);  // always writes, even when nothing changed
    EXPECT_NE(fingerprint().first, before.first);
}

TEST_F(PreferencesTest, DynamicServicesAndOverrides) {
    const Value a1(Dictionary{{"Label", Value("a")}, {"n", Value::integer(1)}});
    const Value b(Dictionary{{"Label", Value("b")}});
    const Value a2(Dictionary{{"Label", Value("a")}, {"n", Value::integer(2)}});
    prefs.addDynamicServiceWithDictionary(a1);
    prefs.addDynamicServiceWithDictionary(b);
    prefs.addDynamicServiceWithDictionary(a2);
    EXPECT_EQ(prefs.dynamicServices().value(), Value(Array{a1, b, a2}));

    const auto before = fingerprint();
    prefs.removeDynamicService("A");
    EXPECT_EQ(fingerprint(), before);
    prefs.removeDynamicService("a");
    EXPECT_EQ(prefs.dynamicServices().value(), Value(Array{b}));

    const Value args = strings({"/bin/echo", "hi"});
    prefs.setProgramArgumentsForServiceJob(args, "svc", "job");
    prefs.setSocketsForServiceJob(Value(Dictionary{}), "svc", "job");
    EXPECT_EQ(prefs.programArgumentsForServiceJob("svc", "job").value(), args);
    EXPECT_FALSE(prefs.programArgumentsForServiceJob("svc", "other"));
    prefs.removeProgramArgumentsForService("svc");
    EXPECT_EQ(stored().at("programArguments"), Value(Dictionary{}));

    // Removing a service without an entry still rewrites when the key exists...
    const auto withSockets = fingerprint();
    prefs.removeSocketsForService("nobody");
    EXPECT_NE(fingerprint().first, withSockets.first);
    // ...and writes nothing when it does not.
    store({{"x", Value("y")}}, plist::Format::Binary);
    const auto plain = fingerprint();
    prefs.removeSocketsForService("svc");
    EXPECT_EQ(fingerprint(), plain);
}

// What a written file looks like to others: XML, mode 0644 whatever it was,
// unknown keys kept, and Python's reader sees what we wrote.
TEST_F(PreferencesTest, WrittenFileIsXmlReadableByOthersAndKeepsUnknownKeys) {
    store({{"futureKey", Value(Dictionary{{"nested", Value::real(1.5)}})},
           {"enabledServices", strings({"a"})}},
          plist::Format::Binary);
    ::chmod(paths.preferencesFile().c_str(), 0600);
    prefs.setServiceEnabled("héllo \"q\" <&>", true);

    struct stat st {};
    ASSERT_EQ(::stat(paths.preferencesFile().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644U);
    EXPECT_TRUE(testing::readFile(paths.preferencesFile()).starts_with("<?xml"));
    EXPECT_EQ(stored().at("futureKey"), Value(Dictionary{{"nested", Value::real(1.5)}}));

    auto py =
        testing::runPython("import plistlib\nd = plistlib.load(open('" + paths.preferencesFile() +
                           "', 'rb'))\n"
                           "assert d == {'futureKey': {'nested': 1.5}, "
                           "'enabledServices': ['a', 'héllo \"q\" <&>']}, d\nprint('ok')\n");
    EXPECT_TRUE(py.ok) << py.output;
}

TEST_F(PreferencesTest, UnparseableFileSurvivesEveryMutator) {
    const std::string garbage = "<?xml version=\"1.0\"?><plist><dict><key>enabledServices</key>";
    testing::writeFile(paths.preferencesFile(), garbage);
    const Value any("x");
    const std::vector<std::function<void()>> mutators = {
        [&] { prefs.setVersion("1"); },
        [&] { prefs.clearPreviousVersion(); },
        [&] {
            prefs.addDynamicServiceWithDictionary(Value(Dictionary{{"Label", any}}));
        },
        [&] { prefs.removeDynamicService("x"); },
        [&] { prefs.savePreviouslyEnabledServices(); },
        [&] { prefs.restorePreviouslyEnabledServices(); },
        [&] { prefs.clearPreviouslyEnabledServices(); },
        [&] { prefs.setServiceEnabled("x", true); },
        [&] { prefs.setServiceEnabled("x", false); },
        [&] { prefs.clearEnabledServices(); },
        [&] { prefs.setProgramArgumentsForServiceJob(any, "x", "x"); },
        [&] { prefs.removeProgramArgumentsForService("x"); },
        [&] { prefs.setSocketsForServiceJob(any, "x", "x"); },
        [&] { prefs.removeSocketsForService("x"); },
        [&] { prefs.setStartCalendarIntervalsForServiceJob(any, "x", "x"); },
        [&] { prefs.removeStartCalendarIntervalsForService("x"); },
        [&] { prefs.setActivePromotionType("configured"); },
        [&] { prefs.upgradePreferences(); },
    };
    for (const auto& mutate : mutators) {
        mutate();
    }
    EXPECT_EQ(testing::readFile(paths.preferencesFile()), garbage);
    EXPECT_EQ(log.countStartingWith("ERROR: Failure serializing preferences: "),
              mutators.size() - 1);  // the upgrade finds the file there and stops
    EXPECT_FALSE(prefs.preferences());
    EXPECT_FALSE(prefs.mutablePreferences());
    EXPECT_FALSE(prefs.serviceIsEnabled("x"));

    // A root that is not a dictionary is no better.
    testing::writeFile(paths.preferencesFile(), "<plist version=\"1.0\"><array/></plist>\n");
    prefs.setServiceEnabled("x", true);
    EXPECT_EQ(testing::readFile(paths.preferencesFile()),
              "<plist version=\"1.0\"><array/></plist>\n");
}

TEST_F(PreferencesTest, FailedWritesLeaveTheOldFileAndSayWhy) {
    store({{"enabledServices", strings({"a"})}});
    const auto before = fingerprint();

    files.fail(FaultyFileOperations::Op::Write, ENOSPC);
    prefs.setServiceEnabled("b", true);
    EXPECT_EQ(fingerprint(), before);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_TRUE(log.lines()[0].starts_with("ERROR: Failure writing preferences: "));
    EXPECT_NE(log.lines()[0].find("No space left on device"), std::string::npos);

    files.heal();
    files.fail(FaultyFileOperations::Op::SetPermissions, EPERM);
    EXPECT_FALSE(prefs.writePreferences({{"k", Value("v")}}));
    EXPECT_EQ(stored(), (Dictionary{{"k", Value("v")}}));  // the contents stay written
    EXPECT_FALSE(prefs.writePreferences({{"bad", Value(std::string("a\0b", 3))}}));
    ASSERT_EQ(log.lines().size(), 3U);
    EXPECT_TRUE(log.lines()[1].starts_with("ERROR: Failure setting preferences attributes: "));
    EXPECT_TRUE(log.lines()[2].starts_with("ERROR: Failure serializing preferences: "));
}

class UpgradeTest : public PreferencesTest {
  protected:
    UpgradeTest() {
        std::filesystem::remove_all(paths.setupDirectory());
        std::filesystem::create_directories(paths.libraryDirectory() + "/Preferences");
    }
    void storeLegacy(const Dictionary& d) {
        auto bytes = plist::encode(Value(d), plist::Format::Binary).value();
        testing::writeFile(paths.legacyPreferencesFile(), std::string(bytes.begin(), bytes.end()));
    }
};

TEST_F(UpgradeTest, FreshSystemGetsAnEmptyFileAndALegacyFileIsMoved) {
    prefs.upgradePreferences();
    struct stat st {};
    ASSERT_EQ(::stat(paths.setupDirectory().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755U);
    ASSERT_EQ(::stat(paths.preferencesFile().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644U);
    EXPECT_EQ(stored(), Dictionary{});

    // A legacy file is moved, the retired label replaced where it stood.
    std::filesystem::remove(paths.preferencesFile());
    storeLegacy({
        {"enabledServices",
         strings({"x", "com.orvane.tessaryadmind", "com.orvane.tessaryadmind.backend"})},
        {"previouslyEnabledServices", strings({"com.orvane.tessaryadmind"})},
        {"dynamicServices",
         Value(Array{Value(Dictionary{{"Label", Value("com.orvane.tessaryadmind")}})})},
    });
    // The directory is already there: it is not made again.
    ::chmod(paths.setupDirectory().c_str(), 0700);
    prefs.upgradePreferences();

    EXPECT_FALSE(std::filesystem::exists(paths.legacyPreferencesFile()));
    const Dictionary d = stored();
    EXPECT_EQ(d.at("enabledServices"), strings({"x", "com.orvane.tessaryadmind.backend",
                                                "com.orvane.tessaryadmind.backend"}));
    EXPECT_EQ(d.at("previouslyEnabledServices"), strings({"com.orvane.tessaryadmind.backend"}));
    EXPECT_EQ(*d.at("dynamicServices").array()->at(0).stringAt("Label"),
              "com.orvane.tessaryadmind");  // only the two lists change
    ::stat(paths.setupDirectory().c_str(), &st);
    EXPECT_EQ(st.st_mode & 07777, 0700U);
    EXPECT_TRUE(log.empty());
}

TEST_F(UpgradeTest, UpgradedInstallationOnlyClearsAStaleLegacyCopy) {
    std::filesystem::create_directories(paths.setupDirectory());
    store({{"enabledServices", strings({"com.orvane.tessaryadmind"})}}, plist::Format::Binary);
    storeLegacy({{"old", Value("x")}});
    const auto before = fingerprint();
    prefs.upgradePreferences();
    EXPECT_EQ(fingerprint(), before);
    EXPECT_FALSE(std::filesystem::exists(paths.legacyPreferencesFile()));
    EXPECT_EQ(
        log.lines(),
        (std::vector<std::string>{"WARNING: Obsolete preferences file found at '" +
                                  paths.legacyPreferencesFile() + "', will attempt to remove"}));
}

TEST_F(UpgradeTest, EachFailureStopsWithItsLine) {
    files.fail(FaultyFileOperations::Op::CreateDirectory, EACCES);
    prefs.upgradePreferences();
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_TRUE(
        log.lines()[0].starts_with("ERROR: Unable to create '" + paths.setupDirectory() + "': "));

    files.heal();
    log.clear();
    storeLegacy({{"enabledServices", strings({"a"})}});
    files.fail(FaultyFileOperations::Op::Move, EXDEV);
    prefs.upgradePreferences();
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_TRUE(log.lines()[0].starts_with("ERROR: Unable to move '"));
    EXPECT_FALSE(fileExists());

    files.heal();
    log.clear();
    std::filesystem::remove_all(paths.libraryDirectory());
    prefs.upgradePreferences();
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"ERROR: /Library does not exist"}));
    EXPECT_FALSE(std::filesystem::exists(paths.libraryDirectory()));
}

}  // namespace
}  // namespace tessary
