#include "prefs/preferences.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <thread>

#include "doubles/faulty_file_operations.h"
#include "doubles/recording_system_log.h"
#include "plist/codec.h"
#include "support/temp_dir.h"
#include "support/value_printer.h"

namespace tessary {
namespace {

using plist::Array;
using plist::Dictionary;
using plist::Value;
using testing::FaultyFileOperations;
using testing::strings;

class PreferencesTest : public ::testing::Test {
  protected:
    PreferencesTest() : paths(root.path()), prefs(paths, files, log) {
        std::filesystem::create_directories(paths.setupDirectory());
    }

    void store(const Dictionary& d, plist::Format f = plist::Format::Xml, std::string at = "") {
        auto bytes = plist::encode(Value(d), f).value();
        testing::writeFile(at.empty() ? paths.preferencesFile() : at,
                           std::string(bytes.begin(), bytes.end()));
    }
    Dictionary stored() {
        auto v = plist::decode(std::string_view(testing::readFile(paths.preferencesFile())));
        EXPECT_TRUE(v.ok());
        return v.ok() ? *v.value().dictionary() : Dictionary{};
    }
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

TEST_F(PreferencesTest, MissingFileReadsAsEmptyAndOnlyRealChangesWrite) {
    EXPECT_FALSE(prefs.serviceIsEnabled("a"));
    EXPECT_EQ(prefs.preferences().value(), Value(Dictionary{}));
    prefs.setServiceEnabled("a", false);
    prefs.restorePreviouslyEnabledServices();
    prefs.removeSocketsForService("a");
    EXPECT_FALSE(std::filesystem::exists(paths.preferencesFile()));

    // Written as XML, mode 0644 whatever it was before.
    store({{"enabledServices", strings({"a", "b", "a"})}}, plist::Format::Binary);
    ::chmod(paths.preferencesFile().c_str(), 0600);
    const auto before = fingerprint();
    prefs.setServiceEnabled("b", true);
    prefs.setServiceEnabled("c", false);
    EXPECT_EQ(fingerprint(), before);
    prefs.setServiceEnabled("a", false);
    EXPECT_EQ(stored().at("enabledServices"), strings({"b"}));
    EXPECT_TRUE(testing::readFile(paths.preferencesFile()).starts_with("<?xml"));
    struct stat st {};
    ASSERT_EQ(::stat(paths.preferencesFile().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644U);
    EXPECT_TRUE(log.empty());
}

TEST_F(PreferencesTest, SaveAndRestoreMoveLabelsInUnlikeWays) {
    store({{"enabledServices", strings({"a", "b"})},
           {"previouslyEnabledServices", strings({"b", "c"})}});
    prefs.savePreviouslyEnabledServices();
    EXPECT_EQ(stored().at("previouslyEnabledServices"), strings({"b", "c", "a"}));
    EXPECT_EQ(stored().at("enabledServices"), strings({}));  // the key stays, empty

    store({{"previouslyEnabledServices", strings({"a", "b", "a"})}});
    prefs.restorePreviouslyEnabledServices();
    EXPECT_EQ(stored().at("enabledServices"), strings({"a", "b"}));
    EXPECT_EQ(stored().count("previouslyEnabledServices"), 0U);  // the key goes
}

TEST_F(PreferencesTest, VersionKeepsTheFirstPreviousVersion) {
    store({{"version", Value("4")}});
    prefs.setVersion("5");
    prefs.setVersion("6");
    EXPECT_EQ(stored(), (Dictionary{{"version", Value("6")}, {"previousVersion", Value("4")}}));

    prefs.clearPreviousVersion();
    prefs.setVersion("6");  // filled again, even with the same version
    EXPECT_EQ(stored().at("previousVersion"), Value("6"));

    prefs.setVersion(std::nullopt);  // version was present: previous stays
    EXPECT_EQ(stored(), (Dictionary{{"previousVersion", Value("6")}}));
    prefs.setVersion(std::nullopt);  // version absent: both go
    EXPECT_EQ(stored(), Dictionary{});
}

TEST_F(PreferencesTest, DynamicServicesAndOverrides) {
    const Value a1(Dictionary{{"Label", Value("a")}, {"n", Value::integer(1)}});
    const Value b(Dictionary{{"Label", Value("b")}});
    prefs.addDynamicServiceWithDictionary(a1);
    prefs.addDynamicServiceWithDictionary(b);
    prefs.addDynamicServiceWithDictionary(a1);
    prefs.removeDynamicService("A");
    EXPECT_EQ(prefs.dynamicServices().value(), Value(Array{a1, b, a1}));
    prefs.removeDynamicService("a");
    EXPECT_EQ(prefs.dynamicServices().value(), Value(Array{b}));

    // The store's own write is not decoded again: what it holds must be what
    // a fresh reading of the same file gives, for the values that could drift.
    const Value drift(Dictionary{{"Label", Value("c\r\n ")},
                                 {"r", Value::real(0.1 + 0.2)},
                                 {"u", Value::unsignedInteger(18446744073709551615U)},
                                 {"i", Value::integer(-1)},
                                 {"d", Value::date(plist::Date{-63113904000})},
                                 {"x", Value::data({0, 255})}});
    prefs.addDynamicServiceWithDictionary(drift);
    EXPECT_EQ(prefs.dynamicServices().value(),
              TYSupervisorPreferences(paths, files, log).dynamicServices().value());

    const Value args = strings({"/bin/echo", "hi"});
    prefs.setProgramArgumentsForServiceJob(args, "svc", "job");
    EXPECT_EQ(prefs.programArgumentsForServiceJob("svc", "job").value(), args);
    EXPECT_FALSE(prefs.programArgumentsForServiceJob("svc", "other"));
    prefs.removeProgramArgumentsForService("svc");
    EXPECT_EQ(stored().at("programArguments"), Value(Dictionary{}));
}

// Every read sees the file as it is on disk: one unchanged since it was
// decoded is not read again, and any change (an edit in place of the same
// size, even at once, also of the store's own write; a file renamed over it)
// is seen by the next read.
TEST_F(PreferencesTest, ReadsSeeTheFileOnDiskAndDecodeOnlyChanges) {
    auto editInPlace = [&](const std::string& from, const std::string& to) {
        std::string text = testing::readFile(paths.preferencesFile());
        text.replace(text.find(from), from.size(), to);
        std::fstream(paths.preferencesFile(), std::ios::in | std::ios::out) << text;
    };
    store({{"enabledServices", strings({"aa"})}});
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_TRUE(prefs.serviceIsEnabled("aa"));
    files.fail(FaultyFileOperations::Op::Read);
    EXPECT_TRUE(prefs.serviceIsEnabled("aa"));  // not read again
    files.heal();
    for (const char* label : {"bb", "cc"}) {  // the second at once after a read
        editInPlace(label[0] == 'b' ? "aa" : "bb", label);
        EXPECT_TRUE(prefs.serviceIsEnabled(label)) << label;
    }
    store({{"enabledServices", strings({"dd"})}}, plist::Format::Xml, paths.root() + "/new");
    std::filesystem::rename(paths.root() + "/new", paths.preferencesFile());
    EXPECT_TRUE(prefs.serviceIsEnabled("dd"));
    // What the store wrote itself, changed by another at once, is the other's.
    prefs.setServiceEnabled("ee", true);
    editInPlace("ee", "ff");
    EXPECT_TRUE(prefs.serviceIsEnabled("ff"));
    EXPECT_FALSE(prefs.serviceIsEnabled("ee"));
}

// Every mutator on every kind of file is the fuzzer's; here, the line each
// refusal leaves.
TEST_F(PreferencesTest, UnparseableFileIsNeverReplaced) {
    const std::string garbage = "<?xml version=\"1.0\"?><plist><dict><key>enabledServices</key>";
    testing::writeFile(paths.preferencesFile(), garbage);
    prefs.setServiceEnabled("x", true);
    prefs.addDynamicServiceWithDictionary(Value(Dictionary{{"Label", Value("x")}}));
    prefs.upgradePreferences();  // finds the file there and stops
    EXPECT_EQ(testing::readFile(paths.preferencesFile()), garbage);
    EXPECT_EQ(log.countStartingWith("ERROR: Failure serializing preferences: "), 2U);
    EXPECT_FALSE(prefs.preferences());
    EXPECT_FALSE(prefs.serviceIsEnabled("x"));
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
        store(d, plist::Format::Binary, paths.legacyPreferencesFile());
    }
};

TEST_F(UpgradeTest, FreshSystemGetsAnEmptyFileAndALegacyFileIsMoved) {
    prefs.upgradePreferences();
    struct stat st {};
    ASSERT_EQ(::stat(paths.setupDirectory().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755U);
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
    EXPECT_FALSE(std::filesystem::exists(paths.preferencesFile()));

    files.heal();
    log.clear();
    std::filesystem::remove_all(paths.libraryDirectory());
    prefs.upgradePreferences();
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"ERROR: /Library does not exist"}));
    EXPECT_FALSE(std::filesystem::exists(paths.libraryDirectory()));
}

}  // namespace
}  // namespace tessary
