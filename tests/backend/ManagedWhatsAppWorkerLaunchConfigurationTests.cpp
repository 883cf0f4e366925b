#include "backend/ManagedWhatsAppWorkerLaunchConfiguration.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "exchange/EnvironmentKeys.h"
#include "support/Files.h"
#include "support/TemporaryDirectory.h"

namespace brindle {
namespace {

namespace fs = std::filesystem;
namespace key = environment_key;

/// Settings by short names, for tables.
Environment settings(std::initializer_list<std::pair<std::string_view, std::string>> entries) {
    Environment environment;
    for (const auto& [name, value] : entries) environment.emplace(name, value);
    return environment;
}

/// Moves this process to another working directory for as long as it lives.
class WorkingDirectory {
  public:
    explicit WorkingDirectory(const fs::path& path) : original_(fs::current_path()) {
        fs::current_path(path);
    }
    WorkingDirectory(const WorkingDirectory&) = delete;
    WorkingDirectory& operator=(const WorkingDirectory&) = delete;
    ~WorkingDirectory() { fs::current_path(original_); }

  private:
    fs::path original_;
};

class LaunchConfigurationTests : public testing::Test {
  protected:
    LaunchConfigurationTests() {
        fs::create_directories(place_.path() / "bin" / "Resources");
        fs::create_directories(place_.path() / "work");
        bundle_.executablePath = at("bin/Helper");
        bundle_.resourceDirectory = at("bin/Resources");
        bundle_.firstArgument = at("argument");
    }

    std::string at(const std::string& name) const { return (place_.path() / name).string(); }
    std::string putFile(const std::string& name) const {
        fs::create_directories((place_.path() / name).parent_path());
        test::writeFileAtomically(place_.path() / name, "");
        return at(name);
    }
    std::optional<ManagedWhatsAppWorkerLaunchConfiguration> resolve(const Environment& environment) {
        const WorkingDirectory moved(place_.path() / "work");
        return resolveLaunchConfiguration(
            {.environment = environment,
             .platform = platform_,
             .dataDirectoryPath = dataDirectory_,
             .fileManager = files_,
             .bundle = bundle_,
             .report = [this](const std::string& sentence) { reports_.push_back(sentence); }});
    }
    /// The launch description, or "none".
    std::string chosen(const Environment& environment) {
        const auto configuration = resolve(environment);
        return configuration ? configuration->launchDescription : "none";
    }
    std::string native(const std::string& path) const { return "native protocol worker (" + path + ")"; }
    std::string builtIn() const { return "built-in WebKit worker (" + at("bin/Helper") + ")"; }
    std::string beside() const { return "bin/" + std::string(native_worker_name); }

    test::TemporaryDirectory place_;
    MainBundle bundle_;
    PosixFileManager files_;
    std::vector<std::string> reports_;
    std::string platform_ = "whatsapp";
    std::string dataDirectory_ = at("data");
};

TEST_F(LaunchConfigurationTests, NothingIsConfiguredByDefault) {
    EXPECT_EQ(chosen({}), "none");
    EXPECT_EQ(chosen(settings({{"PATH", "/bin"}})), "none");
}

TEST_F(LaunchConfigurationTests, DisablingComesBeforeEverything) {
    putFile(beside());
    EXPECT_EQ(chosen(settings({{key::disable_worker, " Yes "},
                               {key::worker_path, "/w"},
                               {key::enable_native_worker, "1"},
                               {key::enable_builtin_worker, "1"}})),
              "none");
    EXPECT_EQ(chosen(settings({{key::disable_worker, "no"}, {key::worker_path, "/w"}})), "/w");
}

TEST_F(LaunchConfigurationTests, ExplicitWorkerIsTakenUnseen) {
    putFile(beside());
    const auto configuration = resolve(settings({{key::worker_path, " /missing//x/../worker\n"}}));
    ASSERT_TRUE(configuration.has_value());
    EXPECT_EQ(configuration->executableURL, "/missing/worker");
    EXPECT_EQ(configuration->launchDescription, "/missing/worker");
    EXPECT_TRUE(configuration->arguments.empty());
    EXPECT_TRUE(configuration->requiresExecutableBit);
    EXPECT_EQ(configuration->environment.at("BRINDLE_MANAGED_BRIDGE_WORKER_ROLE"), "runtime-worker");
    EXPECT_FALSE(configuration->environment.contains("BRINDLE_MANAGED_BRIDGE_WORKER_IMPLEMENTATION"));
}

TEST_F(LaunchConfigurationTests, RelativeExplicitWorkerIsTakenAgainstTheWorkingDirectory) {
    EXPECT_EQ(chosen(settings({{key::worker_path, "w"}})), fs::canonical(at("work")).string() + "/w");
}

TEST_F(LaunchConfigurationTests, BlankExplicitWorkerCountsAsUnset) {
    EXPECT_EQ(chosen(settings({{key::worker_path, "   "}})), "none");
}

TEST_F(LaunchConfigurationTests, NativeWorkersAreEnabledAsTheSettingsSay) {
    const auto found = native(putFile(beside()));
    const std::string_view enable = key::enable_native_worker;
    const std::string_view disable = key::disable_native_worker;
    const std::string_view harness = "XCTestConfigurationFilePath";
    const std::string_view otherHarness = "SWIFT_TESTING_ENABLED";
    const std::vector<std::pair<Environment, bool>> table{
        {{}, true},
        {settings({{"PATH", "/bin"}}), true},
        {settings({{disable, "1"}}), false},
        {settings({{disable, "0"}}), true},
        {settings({{disable, "1"}, {enable, "1"}}), false},
        {settings({{enable, "1"}}), true},
        {settings({{enable, "TRUE"}}), true},
        {settings({{enable, "0"}}), false},
        {settings({{enable, "2"}}), false},
        {settings({{enable, " "}}), true},
        {settings({{harness, "/x"}}), false},
        {settings({{harness, ""}}), false},
        {settings({{otherHarness, "0"}}), false},
        {settings({{harness, "/x"}, {enable, "1"}}), true},
        {settings({{harness, "/x"}, {enable, " "}}), false},
        {settings({{otherHarness, "1"}, {enable, "no"}}), false},
    };
    for (const auto& [environment, enabled] : table) {
        std::string names;
        for (const auto& [name, value] : environment) names += name + "=" + value + " ";
        EXPECT_EQ(chosen(environment), enabled ? found : "none") << names;
    }
}

TEST_F(LaunchConfigurationTests, NativeWorkerKeepsItsOwnRoleAndNamesItsImplementation) {
    const auto path = putFile(beside());
    const auto configuration = resolve({});
    ASSERT_TRUE(configuration.has_value());
    EXPECT_EQ(configuration->executableURL, path);
    EXPECT_TRUE(configuration->arguments.empty());
    EXPECT_TRUE(configuration->requiresExecutableBit);
    EXPECT_EQ(configuration->environment.at("BRINDLE_MANAGED_BRIDGE_WORKER_IMPLEMENTATION"),
              "protocol-native");
    EXPECT_FALSE(configuration->environment.contains("BRINDLE_MANAGED_BRIDGE_WORKER_ROLE"));
}

TEST_F(LaunchConfigurationTests, NativeWorkerIsLookedForInOrder) {
    const std::string name(native_worker_name);
    const std::vector<std::string> places{"bin/" + name, "bin/Resources/" + name,
                                          "work/Support/ManagedWhatsAppNativeWorker/.build/" + name,
                                          "work/Support/ManagedWhatsAppNativeWorker/" + name};
    for (const auto& each : places) putFile(each);
    for (const auto& each : places) {
        EXPECT_EQ(chosen({}), native(at(each)));
        fs::remove(at(each));
    }
    EXPECT_EQ(chosen({}), "none");
}

TEST_F(LaunchConfigurationTests, PlacesThatTheBundleDoesNotKnowAreLeftOut) {
    putFile(beside());
    putFile("bin/Resources/" + std::string(native_worker_name));
    const auto last = putFile("work/Support/ManagedWhatsAppNativeWorker/" + std::string(native_worker_name));
    bundle_.executablePath.reset();
    bundle_.resourceDirectory.reset();
    EXPECT_EQ(chosen({}), native(last));
}

TEST_F(LaunchConfigurationTests, ExistenceIsTheOnlyTestOfANativeWorker) {
    fs::create_directory(at(beside()));
    EXPECT_EQ(chosen({}), native(at(beside())));
    fs::remove(at(beside()));
    fs::create_symlink(at("nowhere"), at(beside()));
    EXPECT_EQ(chosen({}), "none");
}

/// A native worker that is found without being told, by what lies on the way to it from where the search
/// begins: "." is that folder.
class FoundNativeWorkerTests : public LaunchConfigurationTests,
                               public testing::WithParamInterface<std::pair<std::string, std::string>> {
  protected:
    FoundNativeWorkerTests() : worker_(putFile(GetParam().first)) {}

    void allow(mode_t mode) const { EXPECT_EQ(::chmod(at(GetParam().second).c_str(), mode), 0); }
    void expectPassedOver() {
        reports_.clear();
        EXPECT_EQ(chosen({}), "none");
        EXPECT_THAT(reports_, testing::ElementsAre(testing::StartsWith("Passed over the native worker \"" +
                                                                       worker_ + "\", because \"" +
                                                                       at(GetParam().second) + "\" ")));
    }

    std::string worker_;
};

TEST_P(FoundNativeWorkerTests, IsPassedOverWhenOthersMayWriteOnTheWayToIt) {
    for (const mode_t mode : {0777U, 0775U, 0702U}) {
        allow(mode);
        expectPassedOver();
    }
    allow(0755);
    reports_.clear();
    EXPECT_EQ(chosen({}), native(worker_));
    EXPECT_THAT(reports_, testing::IsEmpty());
}

TEST_P(FoundNativeWorkerTests, MayBeReachedThroughFoldersInWhichOnlyOwnersReplaceWhatIsTheirs) {
    allow(01777);
    if (fs::is_directory(at(GetParam().second))) {
        EXPECT_EQ(chosen({}), native(worker_));
    } else {
        expectPassedOver();
    }
}

std::vector<std::pair<std::string, std::string>> stepsToNativeWorkers() {
    const std::string name(native_worker_name);
    std::vector<std::pair<std::string, std::string>> steps;
    for (const std::string place :
         {"bin/", "bin/Resources/", "work/Support/ManagedWhatsAppNativeWorker/.build/",
          "work/Support/ManagedWhatsAppNativeWorker/"}) {
        const bool isResource = place == "bin/Resources/";
        for (auto slash = place.find('/', isResource ? place.find('/') + 1 : 0); slash != std::string::npos;
             slash = place.find('/', slash + 1)) {
            steps.emplace_back(place + name, place.substr(0, slash));
        }
        steps.emplace_back(place + name, place + name);
    }
    return steps;
}

INSTANTIATE_TEST_SUITE_P(EachStep, FoundNativeWorkerTests, testing::ValuesIn(stepsToNativeWorkers()));

TEST_F(LaunchConfigurationTests, NativeWorkerThatTheGroupMayReplaceIsPassedOverAndTheLineSaysHowToRunIt) {
    // What a build makes where new files are the group's as well (umask 002).
    const auto worker =
        putFile("work/Support/ManagedWhatsAppNativeWorker/" + std::string(native_worker_name));
    for (const std::string path : {"work/Support", "work/Support/ManagedWhatsAppNativeWorker"})
        ASSERT_EQ(::chmod(at(path).c_str(), 0775), 0);
    ASSERT_EQ(::chmod(worker.c_str(), 0775), 0);
    EXPECT_EQ(chosen({}), "none");
    EXPECT_THAT(reports_,
                testing::ElementsAre("Passed over the native worker \"" + worker + "\", because \"" +
                                     at("work/Support") +
                                     "\" belongs to another user or can be written by others, if only by its "
                                     "group; if it is to run, let "
                                     "BRINDLE_MANAGED_BRIDGE_NATIVE_WORKER_PATH name it or take that "
                                     "permission away (chmod go-w)."));
    EXPECT_EQ(chosen(settings({{key::native_worker_path, worker}})), native(worker));
}

TEST_F(LaunchConfigurationTests, NativeWorkerThatIsPassedOverMakesWayForTheNextCandidate) {
    ASSERT_EQ(::chmod(putFile(beside()).c_str(), 0777), 0);
    const auto next = putFile("bin/Resources/" + std::string(native_worker_name));
    EXPECT_EQ(chosen({}), native(next));
}

TEST_F(LaunchConfigurationTests, LinkToANativeWorkerIsAsSafeAsWhatItLeadsTo) {
    const auto real = putFile("elsewhere/worker");
    fs::create_symlink(real, at(beside()));
    EXPECT_EQ(chosen({}), native(at(beside())));
    ASSERT_EQ(::chmod(at("elsewhere").c_str(), 0777), 0);
    EXPECT_EQ(chosen({}), "none");
}

TEST_F(LaunchConfigurationTests, GivenNativeWorkerIsTakenWhereverItLies) {
    const auto given = putFile("given/worker");
    ASSERT_EQ(::chmod(at("given").c_str(), 0777), 0);
    EXPECT_EQ(chosen(settings({{key::native_worker_path, given}})), native(given));
}

TEST_F(LaunchConfigurationTests, GivenNativeWorkerIsUsedWhenItExists) {
    putFile(beside());
    const auto given = putFile("given/worker");
    EXPECT_EQ(chosen(settings({{key::native_worker_path, " " + at("given/./worker") + "\n"}})),
              native(given));
}

TEST_F(LaunchConfigurationTests, WrongNativeWorkerIsNotReplacedByAGuess) {
    putFile(beside());
    EXPECT_EQ(chosen(settings({{key::native_worker_path, at("missing")}})), "none");
    EXPECT_EQ(
        chosen(settings({{key::native_worker_path, at("missing")}, {key::enable_builtin_worker, "on"}})),
        builtIn());
}

TEST_F(LaunchConfigurationTests, BlankNativeWorkerCountsAsUnset) {
    const auto found = putFile(beside());
    EXPECT_EQ(chosen(settings({{key::native_worker_path, " \n"}})), native(found));
}

TEST_F(LaunchConfigurationTests, BuiltInWorkerMustBeAskedFor) {
    for (const std::string value : {"1", "true", " YES ", "On"}) {
        EXPECT_EQ(chosen(settings({{key::enable_builtin_worker, value}})), builtIn()) << value;
    }
    for (const std::string value : {"", " ", "0", "2", "y", "enabled"}) {
        EXPECT_EQ(chosen(settings({{key::enable_builtin_worker, value}})), "none") << value;
    }
    EXPECT_EQ(chosen(settings({{key::enable_builtin_worker, "1"}, {"SWIFT_TESTING_ENABLED", "1"}})),
              builtIn());
}

TEST_F(LaunchConfigurationTests, NativeWorkerComesBeforeTheBuiltInOne) {
    const auto found = native(putFile(beside()));
    EXPECT_EQ(chosen(settings({{key::enable_builtin_worker, "1"}})), found);
    EXPECT_EQ(chosen(settings({{key::enable_builtin_worker, "1"}, {key::disable_native_worker, "1"}})),
              builtIn());
}

TEST_F(LaunchConfigurationTests, BuiltInWorkerIsTheRunningExecutable) {
    const auto configuration = resolve(settings({{key::enable_builtin_worker, "1"}}));
    ASSERT_TRUE(configuration.has_value());
    EXPECT_EQ(configuration->executableURL, at("bin/Helper"));
    EXPECT_TRUE(configuration->requiresExecutableBit);
    EXPECT_EQ(configuration->environment.at("BRINDLE_MANAGED_BRIDGE_WORKER_ROLE"), "runtime-worker");
}

TEST_F(LaunchConfigurationTests, FirstArgumentStandsInForAnUnknownExecutable) {
    bundle_.executablePath.reset();
    bundle_.firstArgument = " /opt/./helper\n";
    EXPECT_EQ(chosen(settings({{key::enable_builtin_worker, "1"}})), "built-in WebKit worker (/opt/helper)");
    for (const std::string blank : {"", " \n"}) {
        bundle_.firstArgument = blank;
        EXPECT_EQ(chosen(settings({{key::enable_builtin_worker, "1"}})), "none");
    }
}

TEST_F(LaunchConfigurationTests, WorkerGetsTheSnapshotAndWhatItMustKnow) {
    const auto configuration = resolve(settings({{key::worker_path, "/w"},
                                                 {"BRINDLE_HELPER_LAUNCH_TOKEN", "token"},
                                                 {"HOME", "/home/z"},
                                                 {key::platform, "replaced"},
                                                 {key::parent_process, "1"},
                                                 {key::worker_role, "replaced"},
                                                 {key::data_directory, "replaced"}}));
    ASSERT_TRUE(configuration.has_value());
    EXPECT_EQ(configuration->environment, settings({{key::worker_path, "/w"},
                                                    {"BRINDLE_HELPER_LAUNCH_TOKEN", "token"},
                                                    {"HOME", "/home/z"},
                                                    {key::platform, "whatsapp"},
                                                    {key::parent_process, std::to_string(::getpid())},
                                                    {key::worker_role, "runtime-worker"},
                                                    {key::data_directory, dataDirectory_}}));
}

TEST_F(LaunchConfigurationTests, RoleOfTheSnapshotReachesTheNativeWorkerUnchanged) {
    putFile(beside());
    const auto configuration =
        resolve(settings({{key::worker_role, "something"}, {key::worker_implementation, "x"}}));
    ASSERT_TRUE(configuration.has_value());
    EXPECT_EQ(configuration->environment.at(std::string(key::worker_role)), "something");
    EXPECT_EQ(configuration->environment.at(std::string(key::worker_implementation)), "protocol-native");
}

}  // namespace
}  // namespace brindle
