#include "tests/support/ChildProcess.h"

#include <gtest/gtest.h>
#include <QElapsedTimer>
#include <QTemporaryDir>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <filesystem>

namespace {

constexpr char kNoBroker[] = "mqtt+unix:///nowhere/bus";

struct ProgramRun {
    int status;
    std::string log;
};

ProgramRun runProgram(std::vector<std::string> arguments, const std::string& url = kNoBroker) {
    arguments.insert(arguments.begin(), STORAGECTL_PROGRAM);
    ChildProcess program;
    ChildProcess::Options options;
    options.command = arguments;
    options.environment = {{"SCADA_BUS_URL", url}};
    program.start(options);
    const std::optional<int> status = program.waitForExit(10'000);
    return {status.value_or(-1000), program.log()};
}

TEST(StoragectlProgramTest, WithoutABrokerEveryCommandEndsInTenWithinTwoSeconds) {
    const std::vector<std::vector<std::string>> commands = {
        {"ping"},
        {"ls", "/x"},
        {"cat", "/x"},
        {"get", "/x"},
        {"put", "/etc/passwd", "/x"},
        {"quit"},
        {"rm", "/x"},
        {"mv", "/x", "/y"},
        {"hash", "/x"},
        {"truncate", "/x", "1"},
        {"sniff"},
        {"thumbs", "build", "job", "2024-05-01"},
        {"config", "backup", "panel"},
        {"config", "list"},
        {"listing", "create", "folder", "/mmc"},
        {"mirror", "/mmc", "x"},
        {"check", "/mmc", "x"},
        {"plot", "/mmc/x.gdf"}};
    for (const std::vector<std::string>& command : commands) {
        QElapsedTimer timer;
        timer.start();
        const ProgramRun run = runProgram(command);
        EXPECT_EQ(run.status, 10) << command[0] << ": " << run.log;
        EXPECT_NE(run.log.find("no broker"), std::string::npos) << command[0] << ": " << run.log;
        EXPECT_LT(timer.elapsed(), 2'000) << command[0];
    }
}

TEST(StoragectlProgramTest, WrongUsageEndsInTwo) {
    const std::vector<std::vector<std::string>> commands = {{},
                                                            {"nonsense"},
                                                            {"ls"},
                                                            {"get"},
                                                            {"put", "/x"},
                                                            {"mv", "/x"},
                                                            {"rm"},
                                                            {"ping", "-c", "0"},
                                                            {"--timeout", "0", "ping"},
                                                            {"ls", "--no-such-option", "/x"},
                                                            {"truncate", "/x", "-5"},
                                                            {"data"},
                                                            {"listing"},
                                                            {"listing", "create", "a/b", "/mmc"},
                                                            {"mirror", "/mmc"},
                                                            {"data", "dump", "/a", "/b"},
                                                            {"thumbs", "build", "job"},
                                                            {"config"},
                                                            {"config", "backup"},
                                                            {"config", "restore", "panel"},
                                                            {"plot", "--width", "5", "/x"}};
    for (const std::vector<std::string>& command : commands) {
        const ProgramRun run = runProgram(command);
        EXPECT_EQ(run.status, 2) << run.log;
        EXPECT_FALSE(run.log.empty());
    }
}

TEST(StoragectlProgramTest, WrongUsageNamesWhatIsWrong) {
    EXPECT_NE(runProgram({"nonsense"}).log.find("nonsense"), std::string::npos);
    EXPECT_NE(runProgram({}).log.find("A command is required"), std::string::npos);
    EXPECT_EQ(runProgram({"rm"}).log.substr(0, 12), "storagectl: ");
}

TEST(StoragectlProgramTest, HelpEndsInZeroAndTellsTheExitCodes) {
    const ProgramRun run = runProgram({"--help"});
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(run.log.find("130 interrupted"), std::string::npos);
    const ProgramRun put = runProgram({"put", "--help"});
    EXPECT_NE(put.log.find("modification time"), std::string::npos) << put.log;
    const ProgramRun plot = runProgram({"plot", "--help"});
    EXPECT_NE(plot.log.find("neither mean nor extreme"), std::string::npos) << plot.log;
    EXPECT_NE(plot.log.find("on the unit where the path lies below"), std::string::npos);
}

TEST(StoragectlProgramTest, UnusableBusSettingsEndInSeventyEightAndAreNamed) {
    for (const char* command : {"ping", "sniff"}) {
        const ProgramRun run = runProgram({command}, "carrier-pigeon://roof");
        EXPECT_EQ(run.status, 78);
        EXPECT_NE(run.log.find("SCADA_BUS_URL"), std::string::npos) << run.log;
    }
}

TEST(StoragectlProgramTest, ClosedStandardDescriptorsAreNotTakenByTheConnection) {
    // A broker that never answers holds the program for half a second.
    const QTemporaryDir folder;
    const std::string path = folder.filePath("bus").toStdString();
    sockaddr_un address = {AF_UNIX, {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int broker = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(broker, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(broker, 1), 0);

    ChildProcess program;
    ChildProcess::Options options;
    options.command = {"/bin/sh", "-c", "exec " STORAGECTL_PROGRAM " ping <&- >&- 2>&-"};
    options.environment = {{"SCADA_BUS_URL", "mqtt+unix://" + path}};
    program.start(options);
    const std::string descriptors = "/proc/" + std::to_string(program.pid()) + "/fd/";
    int occupied = 0;
    while (occupied < 3 && !program.waitForExit(1)) {
        occupied = 0;
        for (const char* descriptor : {"0", "1", "2"}) {
            std::error_code error;
            const auto file = std::filesystem::read_symlink(descriptors + descriptor, error);
            occupied += file == "/dev/null" ? 1 : 0;
        }
    }
    EXPECT_EQ(occupied, 3);
    EXPECT_EQ(program.waitForExit(10'000), 10);
    close(broker);
}

TEST(StoragectlProgramTest, JsonErrorsAreObjects) {
    EXPECT_EQ(runProgram({"--json", "ls"}).log.substr(0, 10), "{\"error\":\"");
    EXPECT_EQ(runProgram({"--json", "ping"}).log.substr(0, 10), "{\"error\":\"");
}

}  // namespace
