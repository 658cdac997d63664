#include "log/log.h"

#include <filesystem>
#include <fstream>
#include <thread>

#include "log/utils.h"
#include "unit/provider_test.h"

using namespace testing;
using namespace talvik;

namespace {

class LogTest : public Test {
  protected:
    LogTest() {
        setLogLevel(3);
        log.mark();
    }
    ~LogTest() override { setLogLevel(3); }
    LogReader log;
};

TEST_F(LogTest, RegistryValueChoosesTheLevels) {
    using namespace std::string_literals;
    struct {
        const char* name;
        DWORD type;
        std::string data;
        Lines logged;
    } const rows[] = {{"0", REG_DWORD, "\0\0\0\0"s, {}},
                      {"1", REG_DWORD, "\1\0\0\0"s, {}},
                      {"2", REG_DWORD, "\2\0\0\0"s, {"ERROR e"}},
                      {"3", REG_DWORD, "\3\0\0\0"s, {"DEBUG d", "ERROR e"}},
                      {"4", REG_DWORD, "\4\0\0\0"s, {"ERROR e"}},
                      {"0xFFFFFFFF", REG_DWORD, std::string(4, '\xFF'), {"ERROR e"}},
                      {"binary 3", REG_BINARY, "\3\0\0\0\7"s, {"DEBUG d", "ERROR e"}},
                      {"64-bit 1", REG_QWORD, "\1\0\0\0\0\0\0\0"s, {}},
                      {"text 3", REG_SZ, "3\0"s, {"ERROR e"}},
                      {"one byte 3", REG_BINARY, "\3", {"DEBUG d", "ERROR e"}},
                      {"too long", REG_BINARY, "\3" + std::string(40, '\0'), {"ERROR e"}}};
    const auto logBoth = [&] {
        log.mark();
        logDebug("d");
        logError("e");
        return log.take();
    };
    setLogLevel(std::nullopt);
    EXPECT_EQ(logBoth(), Lines({"ERROR e"}));
    for (const auto& row : rows) {
        ASSERT_EQ(RegSetKeyValueA(HKEY_LOCAL_MACHINE, "Software\\Quorvel\\Talvik", "logLevel", row.type,
                                  row.data.data(), static_cast<DWORD>(row.data.size())),
                  ERROR_SUCCESS);
        EXPECT_EQ(logBoth(), row.logged) << row.name;
    }
}

TEST_F(LogTest, ALineHasDayBeforeMonthAndOneLineFeed) {
    const auto begins = [](const SYSTEMTIME& at) {
        char text[16];
        std::snprintf(text, sizeof text, "%02d/%02d::%02d:%02d:", at.wDay, at.wMonth, at.wHour, at.wMinute);
        return StartsWith(std::string(text));
    };
    SYSTEMTIME before, after;
    GetLocalTime(&before);
    logDebug("CPAcquireContext");
    GetLocalTime(&after);
    EXPECT_EQ(log.entries(), Lines({"DEBUG CPAcquireContext"}));
    EXPECT_THAT(log.raw(), AnyOf(begins(before), begins(after)));
    char name[32];
    std::snprintf(name, sizeof name, "%04d-%02d-%02d.LOG", after.wYear, after.wMonth, after.wDay);
    EXPECT_TRUE(std::filesystem::exists(logFolder() + name)) << name;
}

TEST_F(LogTest, EveryLevelCodeHasItsTag) {
    setLogLevel(0);
    for (const int level : {1, 2, 3, 0, 4, -1})
        writeLog(level, "x");
    std::string tags;
    std::istringstream lines(log.raw());
    for (std::string line; std::getline(lines, line);)
        tags += line.substr(24) + '\n';
    EXPECT_EQ(tags, "EXCEP ::=>x\nERROR ::=>x\nDEBUG ::=>x\nINFO  ::=>x\nINFO  ::=>x\nINFO  ::=>x\n");
}

// Only in what is not the provider's own text: a text of another's, and a record's field, which has a literal's type.
TEST_F(LogTest, ControlCharactersOfValuesAreEscaped) {
    const std::string value = "a\n\x1B[2J\x1F\x7F\xE4\\ ";
    const struct { char label[128]; } record = {"b\r"};
    logError("one\r\ntwo", value, std::string_view(value).substr(1, 1), value.c_str() + 9, record.label);
    logError("");
    EXPECT_EQ(log.entries(), Lines({"ERROR one\r\ntwoa\\x0A\\x1B[2J\\x1F\\x7F\xE4\\ \\x0A\\ b\\x0D", "ERROR "}));
}

TEST_F(LogTest, LoggingKeepsTheLastError) {
    for (const auto level : {std::optional<unsigned long>(3), {}}) {
        setLogLevel(level);
        SetLastError(UNTOUCHED_ERROR);
        logDebug("d");
        logError("e");
        EXPECT_EQ(GetLastError(), UNTOUCHED_ERROR);
    }
}

TEST_F(LogTest, AFreshMachineLosesItsFirstTwoLines) {
    useOwnTemporaryFolder(false);
    const LogReader fresh;
    internal::CaptureStdout();
    for (const char* line : {"one", "two", "three"})
        logError(line);
    EXPECT_EQ(internal::GetCapturedStdout(), "\nUnable to write log\nUnable to write log");
    EXPECT_EQ(fresh.entries(), Lines({"ERROR three"}));
    useOwnTemporaryFolder();
}

TEST_F(LogTest, WithoutATemporaryFolderItSaysSoAndGoesOn) {
    char working[MAX_PATH];
    GetCurrentDirectoryA(sizeof working, working);
    SetCurrentDirectoryA("C:\\");  // the path then begins at the current drive's root
    internal::CaptureStdout();
    SetEnvironmentVariableA("TMP", "C:\\no such folder");
    char buffer[1024] = "x";
    EXPECT_EQ(Utils().getLogBaseFolderPath(buffer, sizeof buffer), -1);
    EXPECT_STREQ(buffer, "");
    logError("e");
    EXPECT_THAT(internal::GetCapturedStdout(), StartsWith("\nUnable to getLogBaseFolderPath"));
    SetCurrentDirectoryA(working);
    useOwnTemporaryFolder();
}

TEST_F(LogTest, LinesOfManyThreadsNeverInterleave) {
    constexpr int threads = 6, lines = 40;
    const auto lineOf = [](int thread) { return std::string(200, static_cast<char>('a' + thread)); };
    std::vector<std::thread> running;
    for (int i = 0; i < threads; ++i)
        running.emplace_back([=] {
            for (int n = 0; n < lines; ++n)
                logError(lineOf(i));
        });
    for (std::thread& thread : running)
        thread.join();
    const Lines written = log.entries();
    EXPECT_EQ(written.size(), threads * lines);
    for (int i = 0; i < threads; ++i)
        EXPECT_EQ(std::ranges::count(written, "ERROR " + lineOf(i)), lines);
}

TEST_F(LogTest, TheFolderWalkMakesOneLevelACall) {
    std::string path = useOwnTemporaryFolder(false) + "a/b/c/";
    for (const char* level : {"a", "a/b", "a/b/c"}) {
        const std::string made = path.substr(0, path.size() - 6) + level;
        EXPECT_FALSE(Utils().isFolderExists(made.c_str()));
        EXPECT_EQ(Utils().createLogFolder(path.c_str()), -1);
        EXPECT_TRUE(Utils().isFolderExists(made.c_str()));
    }
    EXPECT_EQ(Utils().createLogFolder(path.c_str()), 0);
    EXPECT_EQ(Utils().createFolder(path.c_str()), 0);
    std::ofstream(path + "file");
    EXPECT_FALSE(Utils().isFolderExists((path + "file").c_str()));
    useOwnTemporaryFolder();
}

}  // namespace
