#include "karst/Logger.h"

#include "CapturedError.h"
#include "ChildProcess.h"
#include "karst/Properties.h"
#include "karst/Text.h"
#include "karst/Thread.h"
#include "support/TempFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <set>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

using namespace tessa;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

namespace {

class LoggerTest : public testing::Test {
protected:
    LoggerTest() { reset(); }
    ~LoggerTest() override { reset(); }

    static void reset() {
        ::unsetenv("JOURNAL_STREAM");
        Logger::logToStandardError();
        Logger::configure(Properties());
    }

    static std::string configure(const std::string& text) {
        const test::CapturedError log;
        Properties properties;
        properties.parse(text, "test.conf");
        Logger::configure(properties);
        return log.text();
    }

    /// The lowest level that the logger lets through.
    static int threshold(const std::string& name) {
        for (int level = LOG_TRACE; level <= LOG_FATAL; ++level) {
            if (Logger::get(name)->enabled(level)) {
                return level;
            }
        }
        return LOG_FATAL + 1;
    }

    boost::shared_ptr<Logger> m_logger = Logger::get("test.logger");
};

TEST_F(LoggerTest, oneObjectForEachName) {
    EXPECT_EQ(Logger::get("test.one"), Logger::get("test.one"));
    EXPECT_NE(Logger::get("test.one"), Logger::get("test.two"));
    EXPECT_EQ(Logger::get("test.one")->name(), "test.one");
    EXPECT_EQ(Logger::get("")->name(), "");
}

TEST_F(LoggerTest, lineOnStandardError) {
    const test::CapturedError log;
    KARST_LOG(m_logger, LOG_WARN, "Cannot stat '%s': %d", "file", 17);
    EXPECT_THAT(log.text(),
                MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z "
                             "warning \\[main\\] test\\.logger LoggerTest\\.cpp:[0-9]+ TestBody: "
                             "Cannot stat 'file': 17\n"));
}

TEST_F(LoggerTest, namesOfLevelsAndThreads) {
    m_logger->setThreshold(LOG_TRACE);
    const std::array<const char*, 7> words{"trace",   "debug", "detail", "info",
                                           "warning", "error", "fatal"};
    for (int level = LOG_TRACE; level <= LOG_FATAL; ++level) {
        const test::CapturedError log;
        Thread thread;
        thread.start("client-3", [&] { KARST_LOG(m_logger, level, "x"); });
        thread.join();
        EXPECT_THAT(log.text(),
                    HasSubstr(std::string("Z ") + words.at(static_cast<std::size_t>(level)) +
                              " [client-3] test.logger "));
    }
}

TEST_F(LoggerTest, levelsOutOfRangeCountAsTheNearest) {
    const test::CapturedError log;
    m_logger->log(99, "f", 1, "g", "high");
    m_logger->log(-99, "f", 1, "g", "low");
    EXPECT_THAT(log.text(), HasSubstr("fatal [main] test.logger f:1 g: high\n"));
    EXPECT_THAT(log.text(), HasSubstr("trace [main] test.logger f:1 g: low\n"));
}

TEST_F(LoggerTest, belowTheThresholdNothingIsFormatted) {
    int evaluated = 0;
    const test::CapturedError log;
    KARST_LOG(m_logger, LOG_DETAIL, "%d", ++evaluated);
    EXPECT_EQ(evaluated, 0);
    EXPECT_THAT(log.text(), IsEmpty());
    m_logger->setThreshold(LOG_DETAIL);
    KARST_LOG(m_logger, LOG_DETAIL, "%d", ++evaluated);
    EXPECT_EQ(evaluated, 1);
    EXPECT_THAT(log.text(), EndsWith(": 1\n"));
}

TEST_F(LoggerTest, keepsErrno) {
    const test::CapturedError log;
    errno = ENOENT;
    KARST_LOG(m_logger, LOG_WARN, "%s", std::string(5000, 'x').c_str());
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(test::inChild([this] {
        ::close(STDERR_FILENO); // the write fails
        errno = ENOENT;
        KARST_LOG(m_logger, LOG_WARN, "x");
        return errno == ENOENT;
    }));
}

TEST_F(LoggerTest, dataCannotForgeALine) {
    const test::CapturedError log;
    KARST_LOG(m_logger, LOG_WARN, "user '%s'",
              "eve\n2026-11-21T10:00:00.000Z fatal [main] \x1B[2J\x7F\xFF \xC3\xA4");
    const std::string text = log.text();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
    EXPECT_THAT(text, HasSubstr("eve\\x0a2026"));
    EXPECT_THAT(text, HasSubstr("\\x1b[2J\\x7f\\xff \xC3\xA4'\n"));
}

TEST_F(LoggerTest, messagesOfAnyLength) {
    for (const std::size_t length : {0U, 1U, 510U, 511U, 512U, 513U, 4096U, 16384U}) {
        const test::CapturedError log;
        const std::string message(length, 'm');
        KARST_LOG(m_logger, LOG_WARN, "%s", message.c_str());
        EXPECT_THAT(log.text(), EndsWith("TestBody: " + message + "\n")) << length;
    }
    const test::CapturedError log;
    KARST_LOG(m_logger, LOG_WARN, "%s", std::string(1000000, 'm').c_str());
    EXPECT_THAT(log.text(), EndsWith("TestBody: " + std::string(16384, 'm') + "...\n"));
}

TEST_F(LoggerTest, thresholdsFollowTheTreeOfNames) {
    EXPECT_EQ(threshold("test.tree"), LOG_INFORMATION) << "default";
    EXPECT_THAT(configure("log.level: 4\n"
                          "log.level.test.tree: debug\n"
                          "log.level.test.tree.inner.most: 6\n"
                          "LOG.LEVEL.Test.Case: 0\n"
                          "log.levels: 0\n"),
                IsEmpty());
    EXPECT_EQ(threshold("test"), LOG_WARN);
    EXPECT_EQ(threshold("test.tree"), LOG_DEBUGGING);
    EXPECT_EQ(threshold("test.tree.inner"), LOG_DEBUGGING);
    EXPECT_EQ(threshold("test.tree.inner.most"), LOG_FATAL);
    EXPECT_EQ(threshold("test.treetop"), LOG_WARN) << "no name below test.tree";
    EXPECT_EQ(threshold("test.case"), LOG_TRACE) << "case of keys does not count";
    EXPECT_EQ(threshold("test.Case.Below"), LOG_TRACE);
    configure("");
    EXPECT_EQ(threshold("test.tree"), LOG_INFORMATION) << "a setting that is gone is undone";
}

TEST_F(LoggerTest, levelsAsNumbersAndWords) {
    const std::vector<std::pair<std::string, int>> levels{
        {"0", 0},    {"1", 1},    {"2", 2},       {"3", 3},     {"4", 4},
        {"5", 5},    {"6", 6},    {"trace", 0},   {"Debug", 1}, {"detail", 2},
        {"INFO", 3}, {"warn", 4}, {"warning", 4}, {"error", 5}, {"fatal", 6}};
    for (const auto& [text, level] : levels) {
        EXPECT_THAT(configure("log.level: " + text), IsEmpty()) << text;
        EXPECT_EQ(threshold("test.words"), level) << text;
    }
}

TEST_F(LoggerTest, malformedLevelsAreReportedAndIgnored) {
    for (const std::string text :
         {"", "7", "-1", "loud", "3x", "03", "debug info", "999999999999"}) {
        const std::string log = configure("log.level.test: 5\nlog.level.test.bad: " + text);
        EXPECT_EQ(threshold("test.bad"), LOG_FAILURE) << text;
        EXPECT_THAT(log, HasSubstr("warning [main] karst ")) << text;
        EXPECT_THAT(log, HasSubstr("log.level.test.bad: " + text + "\n")) << text;
    }
}

TEST_F(LoggerTest, journalLinesCarryPriorities) {
    const test::CapturedError log;
    struct stat status {};
    ASSERT_EQ(::fstat(STDERR_FILENO, &status), 0);
    const std::string stream = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
    ::setenv("JOURNAL_STREAM", stream.c_str(), 1);
    Logger::logToStandardError();
    m_logger->setThreshold(LOG_TRACE);
    const std::array<int, 7> priorities{7, 7, 7, 6, 4, 3, 2};
    std::string wanted;
    for (int level = LOG_TRACE; level <= LOG_FATAL; ++level) {
        m_logger->log(level, "f.cpp", 3, "g", "level %d", level);
    }
    const auto lines = StringSplit(log.text(), "\n");
    ASSERT_EQ(lines.size(), priorities.size());
    for (std::size_t i = 0; i < lines.size(); ++i) {
        EXPECT_THAT(lines[i], StartsWith("<" + std::to_string(priorities.at(i)) + ">"));
        EXPECT_THAT(lines[i],
                    EndsWith(" [main] test.logger f.cpp:3 g: level " + std::to_string(i)));
        EXPECT_THAT(lines[i], Not(HasSubstr("Z "))) << "the journal has its own time";
    }
}

TEST_F(LoggerTest, anotherJournalStreamIsNotOurs) {
    for (const char* stream : {"", ":", "1", "0:0", "x:y", "99999999999999999999:1"}) {
        const test::CapturedError log;
        ::setenv("JOURNAL_STREAM", stream, 1);
        Logger::logToStandardError();
        KARST_LOG(m_logger, LOG_WARN, "x");
        EXPECT_THAT(log.text(), Not(StartsWith("<"))) << stream;
    }
}

/// A pipe in the place of standard error.
class ErrorPipe {
public:
    explicit ErrorPipe(int flags) : m_before(::dup(STDERR_FILENO)) {
        if (::pipe2(m_ends.data(), flags) != 0 || ::dup2(m_ends[1], STDERR_FILENO) < 0) {
            throw std::runtime_error("cannot make a pipe of standard error");
        }
        ::close(m_ends[1]);
    }
    ~ErrorPipe() {
        ::dup2(m_before, STDERR_FILENO);
        ::close(m_before);
        closeReader();
    }
    ErrorPipe(const ErrorPipe&) = delete;
    ErrorPipe& operator=(const ErrorPipe&) = delete;

    void closeReader() {
        if (m_ends[0] >= 0) {
            ::close(m_ends[0]);
            m_ends[0] = -1;
        }
    }
    int reader() const { return m_ends[0]; }

    /// What lies in the pipe.
    std::string drain() {
        ::fcntl(m_ends[0], F_SETFL, O_NONBLOCK);
        std::string text;
        std::array<char, 65536> block{};
        ssize_t got = 0;
        while ((got = ::read(m_ends[0], block.data(), block.size())) > 0) {
            text.append(block.data(), static_cast<std::size_t>(got));
        }
        return text;
    }

private:
    int m_before;
    std::array<int, 2> m_ends{-1, -1};
};

class StuckReaderTest : public LoggerTest, public testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(Flags, StuckReaderTest, testing::Values(0, O_NONBLOCK));

TEST_P(StuckReaderTest, recordsAreLostAndCountedButNobodyWaitsForEver) {
    constexpr int RECORDS = 500;
    ErrorPipe pipe(GetParam());
    ASSERT_GT(::fcntl(pipe.reader(), F_SETPIPE_SZ, 4096), 0);
    const std::string filler(100, 'f');
    for (int i = 0; i < RECORDS; ++i) {
        KARST_LOG(m_logger, LOG_WARN, "record %d %s", i, filler.c_str());
    }
    const auto held = StringSplit(pipe.drain(), "\n").size();
    EXPECT_GT(held, 0U);
    EXPECT_LT(held, 100U);
    KARST_LOG(m_logger, LOG_WARN, "after");
    const auto lines = StringSplit(pipe.drain(), "\n");
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_THAT(lines[0], EndsWith(" " + std::to_string(RECORDS - static_cast<int>(held)) +
                                   " log records lost: standard error did not take them"));
    EXPECT_THAT(lines[1], EndsWith(": after"));
}

TEST_P(StuckReaderTest, lineThatWasCutIsEnded) {
    ErrorPipe pipe(GetParam());
    ASSERT_GT(::fcntl(pipe.reader(), F_SETPIPE_SZ, 4096), 0);
    KARST_LOG(m_logger, LOG_WARN, "%s", std::string(16000, 'c').c_str());
    const std::string cut = pipe.drain();
    EXPECT_EQ(cut.size(), 4096U);
    EXPECT_EQ(cut.find('\n'), std::string::npos);
    KARST_LOG(m_logger, LOG_WARN, "after");
    const std::string rest = pipe.drain();
    EXPECT_THAT(rest, StartsWith("\n"));
    EXPECT_THAT(rest, HasSubstr(" 1 log records lost: "));
    EXPECT_THAT(rest, EndsWith(": after\n"));
}

TEST_F(LoggerTest, readerThatWentAwayDoesNotEndTheProcess) {
    EXPECT_TRUE(test::inChild([this] {
        ::signal(SIGPIPE, SIG_DFL);
        ErrorPipe pipe(0);
        pipe.closeReader();
        for (int i = 0; i < 3; ++i) {
            KARST_LOG(m_logger, LOG_WARN, "nobody reads");
        }
        sigset_t pending;
        sigset_t mask;
        ::sigpending(&pending);
        ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        return ::sigismember(&pending, SIGPIPE) == 0 && ::sigismember(&mask, SIGPIPE) == 0;
    })) << "the signal was neither delivered nor left pending nor left blocked";
}

TEST_F(LoggerTest, signalThatSomebodyElseWaitsForIsLeft) {
    EXPECT_TRUE(test::inChild([this] {
        sigset_t pipeOnly;
        ::sigemptyset(&pipeOnly);
        ::sigaddset(&pipeOnly, SIGPIPE);
        ::pthread_sigmask(SIG_BLOCK, &pipeOnly, nullptr);
        ::raise(SIGPIPE);
        ErrorPipe pipe(0);
        pipe.closeReader();
        KARST_LOG(m_logger, LOG_WARN, "nobody reads");
        sigset_t pending;
        ::sigpending(&pending);
        return ::sigismember(&pending, SIGPIPE) == 1;
    }));
}

TEST_F(LoggerTest, closedStandardErrorIsHarmless) {
    EXPECT_TRUE(test::inChild([this] {
        ::close(STDERR_FILENO);
        KARST_LOG(m_logger, LOG_WARN, "nowhere");
        Logger::logToStandardError();
        KARST_LOG(m_logger, LOG_WARN, "nowhere");
        return true;
    }));
}

TEST_F(LoggerTest, linesOfSeveralThreadsDoNotMix) {
    constexpr int THREADS = 4;
    constexpr int RECORDS = 100;
    const test::CapturedError log;
    {
        std::vector<Thread> threads(THREADS);
        for (int i = 0; i < THREADS; ++i) {
            // One writes lines that are longer than a pipe takes at once.
            const std::string message((i == 0 ? 6000U : 50U), static_cast<char>('a' + i));
            threads[static_cast<std::size_t>(i)].start("t-" + std::to_string(i), [this, message] {
                for (int j = 0; j < RECORDS; ++j) {
                    KARST_LOG(Logger::get("test.logger"), LOG_WARN, "%s.", message.c_str());
                    if (j % 10 == 0) {
                        Logger::configure(Properties());
                    }
                }
            });
        }
    }
    const auto lines = StringSplit(log.text(), "\n");
    ASSERT_EQ(lines.size(), std::size_t{THREADS} * RECORDS);
    for (const auto& line : lines) {
        const std::size_t thread = line.find(" [t-");
        ASSERT_NE(thread, std::string::npos) << line;
        const char number = line.at(thread + 4);
        const std::string message(number == '0' ? 6000U : 50U,
                                  static_cast<char>('a' + (number - '0')));
        EXPECT_EQ(line.find(" [t-", thread + 1), std::string::npos) << line;
        EXPECT_THAT(line, EndsWith(": " + message + "."));
    }
}

/// A socket in the place of the system log, in a mount namespace of the calling process's own.
class SystemLog {
public:
    SystemLog() {
        if (::unshare(CLONE_NEWNS) != 0 ||
            ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0) {
            throw std::runtime_error("cannot hide /dev");
        }
        m_socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{AF_UNIX, "/dev/log"};
        if (::bind(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            throw std::runtime_error("cannot bind /dev/log");
        }
    }
    ~SystemLog() { ::close(m_socket); }
    SystemLog(const SystemLog&) = delete;
    SystemLog& operator=(const SystemLog&) = delete;

    std::string next() {
        std::array<char, 4096> datagram{};
        const ssize_t got = ::recv(m_socket, datagram.data(), datagram.size(), MSG_DONTWAIT);
        return got < 0 ? "" : std::string(datagram.data(), static_cast<std::size_t>(got));
    }

private:
    int m_socket = -1;
};

/// Whether the record is "<facility*8 + priority>TIME program[pid]: text".
bool isRecord(const std::string& record, int priority, const std::string& text) {
    const std::string start = "<" + std::to_string(3 * 8 + priority) + ">";
    const std::string end = " orrisd-test[" + std::to_string(::getpid()) + "]: " + text;
    return record.compare(0, start.size(), start) == 0 && record.size() > end.size() &&
           record.compare(record.size() - end.size(), end.size(), end) == 0;
}

TEST_F(LoggerTest, syslogRecords) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "a private system log needs root";
    }
    EXPECT_TRUE(test::inChild([this] {
        SystemLog system;
        Logger::logToSyslog("orrisd-test");
        m_logger->setThreshold(LOG_TRACE);
        const std::array<int, 7> priorities{7, 7, 7, 6, 4, 3, 2};
        bool good = true;
        for (int level = LOG_TRACE; level <= LOG_FATAL; ++level) {
            m_logger->log(level, "f.cpp", 3, "g", "100%% of\n%s", "%s");
            const std::string place = level <= LOG_DEBUGGING ? "f.cpp:3 g: " : "";
            good = good && isRecord(system.next(), priorities.at(static_cast<std::size_t>(level)),
                                    place + "100% of\\x0a%s");
        }
        Logger::logToSyslog("orrisd-test"); // again, as after a change of the configuration
        KARST_LOG(m_logger, LOG_WARN, "still");
        return good && isRecord(system.next(), 4, "still") && system.next().empty();
    }));
}

} // namespace
