#include <dlog.h>
#include <tarvo/log_capture.h>

#include "tarvo_test.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <cctype>
#include <sstream>
#include <thread>
#include <unistd.h>

namespace {

using tarvo::platform::LogCapture;

// "YYYY-MM-DD HH:MM:SS.mmm" at the start of the line.
bool StartsWithTimeStamp(const std::string& line) {
    const std::string shape = "0000-00-00 00:00:00.000";
    if (line.size() < shape.size()) return false;
    for (size_t i = 0; i < shape.size(); ++i) {
        bool digit = std::isdigit(static_cast<unsigned char>(line[i])) != 0;
        if (shape[i] == '0' ? !digit : line[i] != shape[i]) return false;
    }
    return true;
}

class PlatformLog : public ::testing::Test {
  protected:
    std::vector<std::string> FileLines() {
        std::istringstream in(tarvo::test::ReadFile(root.At("/var/log/tarvo.log")));
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }

    tarvo::test::TempRoot root;
};

TEST_F(PlatformLog, EachCallAppendsOneLineWithTimePriorityTagAndPid) {
    std::filesystem::remove_all(root.At("/var/log"));
    __dlog_print(LOG_ID_MAIN, DLOG_WARN, "TarvoDataControl", "%s: \033[31m [%s:%d]%s\033[0m\n", "a.cpp", "Fn",
                 12, " text");
    __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, "Other", "plain %d", 5);
    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "Other", "e");

    std::vector<std::string> lines = FileLines();
    ASSERT_EQ(lines.size(), 3u);
    const std::string pid = std::to_string(getpid());
    EXPECT_TRUE(StartsWithTimeStamp(lines[0])) << lines[0];
    EXPECT_EQ(lines[0].substr(23), " W/TarvoDataControl(" + pid + "): a.cpp: \033[31m [Fn:12] text\033[0m");
    EXPECT_NE(lines[1].find(" D/Other(" + pid + "): plain 5"), std::string::npos) << lines[1];
    EXPECT_NE(lines[2].find(" E/Other("), std::string::npos) << lines[2];
}

TEST_F(PlatformLog, CaptureKeepsMessagesFromAnyThreadWhileItLives) {
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "before");
    {
        LogCapture capture;
        std::thread writer([] { __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "from %s\n", "worker"); });
        EXPECT_TRUE(capture.WaitFor("from work", std::chrono::seconds(10)));
        writer.join();
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "from worker again");
        EXPECT_FALSE(capture.Contains("before"));
        EXPECT_EQ(capture.Count("from worker"), 2u);
        EXPECT_EQ(capture.Lines().front(), "from worker");
        EXPECT_FALSE(capture.WaitFor("never", std::chrono::milliseconds(20)));
    }
    LogCapture later;
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "T", "after");
    EXPECT_EQ(later.Lines(), std::vector<std::string>{"after"});
}

}  // namespace
