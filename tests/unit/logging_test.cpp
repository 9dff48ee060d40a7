// The logger (levels, %m, cuts, dump layout, line prefix) and the small
// byte, text and file utilities.
#include <gtest/gtest.h>

#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "CLogger.h"
#include "testutil.h"
#include "util.h"

namespace {

using Bytes = std::vector<unsigned char>;

// ---------------------------------------------------------------------- logger

enum Level { DEBUG, INFO, ERROR };

struct SwitchCase {
    Level level;
    const char* value;  // nullptr: unset
    bool printed;
};

class LevelSwitch : public ::testing::TestWithParam<SwitchCase> {};

TEST_P(LevelSwitch, OnlyTheExactTextOneEnablesALevel) {
    const SwitchCase& c = GetParam();
    // The other level's variable is on, so it cannot be the one that enables this level.
    qt::ScopedEnv other(c.level == INFO ? "ENABLE_SL_LOG" : "ENABLE_INFO_LOG", "1");
    qt::ScopedEnv env(c.level == INFO ? "ENABLE_INFO_LOG" : "ENABLE_SL_LOG", c.value);
    CLogger log;
    qt::StderrCapture cap;
    if (c.level == DEBUG) log.log_debug("xyz");
    if (c.level == INFO) log.log_info("xyz");
    if (c.level == ERROR) log.log_error("xyz");
    std::string out = cap.finish();
    if (!c.printed)
        EXPECT_EQ("", out);
    else
        EXPECT_EQ(c.level == INFO ? "xyzxyz\n" : "xyz\n", out);
}

INSTANTIATE_TEST_SUITE_P(
    Logger, LevelSwitch,
    ::testing::Values(SwitchCase{DEBUG, "1", true}, SwitchCase{DEBUG, "true", false}, SwitchCase{DEBUG, "11", false},
                      SwitchCase{DEBUG, nullptr, false}, SwitchCase{INFO, "1", true}, SwitchCase{INFO, "yes", false},
                      SwitchCase{ERROR, "1", true}, SwitchCase{ERROR, "1 ", false}));

TEST(Logger, SwitchIsReadOnEveryCall) {
    CLogger log;
    qt::StderrCapture cap;
    for (const char* value : {"1", "0", "1"}) {
        qt::ScopedEnv env("ENABLE_SL_LOG", value);
        log.log_debug("%s", value);
    }
    EXPECT_EQ("1\n1\n", cap.finish());
}

struct PercentCase {
    const char* fmt;
    const char* expected;
};

class PercentM : public ::testing::TestWithParam<PercentCase> {};

TEST_P(PercentM, ExpandsOnlyPercentM) {
    char out[1024];
    memset(out, 'Q', sizeof(out));
    CLogger::do_percentm(out, GetParam().fmt);
    EXPECT_STREQ(GetParam().expected, out);
}

INSTANTIATE_TEST_SUITE_P(Logger, PercentM,
                         ::testing::Values(PercentCase{"%m%m", "<unknown error><unknown error>"},
                                           PercentCase{"%%m", "%%m"}, PercentCase{"%%%m", "%%<unknown error>"},
                                           PercentCase{"m%", "m%"}));

TEST(Logger, FormatIsCutTo1023Characters) {
    std::string fmt(1500, 'a');
    char out[1024];
    CLogger::do_percentm(out, fmt.c_str());
    EXPECT_EQ(std::string(1023, 'a'), out);
    // An expansion that would pass the limit stops the copy.
    std::string nearEnd = std::string(1015, 'b') + "%mTAIL";
    CLogger::do_percentm(out, nearEnd.c_str());
    EXPECT_EQ(0u, std::string(out).find(std::string(1015, 'b')));
    EXPECT_LE(strlen(out), 1023u);
    EXPECT_EQ(std::string::npos, std::string(out).find("TAIL"));
}

TEST(Logger, MessageIsCutTo1023CharactersAndInfoWritesItTwice) {
    qt::ScopedEnv env("ENABLE_SL_LOG", "1");
    qt::ScopedEnv info("ENABLE_INFO_LOG", "1");
    CLogger log;
    std::string exact(1023, 'd');
    qt::StderrCapture cap;
    log.log_debug("%s", std::string(3000, 'c').c_str());
    log.log_debug("%s", exact.c_str());
    log.log_debug("failed %d: %m, 100%% %s", 7, (exact + "e").c_str());
    log.log_info("n=%d", 4);
    std::string third = ("failed 7: <unknown error>, 100% " + exact).substr(0, 1023);
    EXPECT_EQ(std::string(1023, 'c') + "\n" + exact + "\n" + third + "\nn=4n=4\n", cap.finish());
}

TEST(LoggerDeathTest, FatalAlwaysExitsWithOne) {
    {
        qt::ScopedEnv env("ENABLE_SL_LOG", nullptr);
        EXPECT_EXIT(CLogger().log_fatal("gone"), ::testing::ExitedWithCode(1), "^$");
    }
    qt::ScopedEnv env("ENABLE_SL_LOG", "1");
    EXPECT_EXIT(CLogger().log_fatal("gone %d", 5), ::testing::ExitedWithCode(1), "^gone 5\n$");
}

class Dump : public ::testing::TestWithParam<int> {};

// The size line, then "xx " per byte, 33 bytes to a line.
TEST_P(Dump, ShowsTheSizeThen33BytesALine) {
    const int size = GetParam();
    Bytes data(size);
    std::string expected = "(size: " + std::to_string(size) + ")\n";
    char group[8];
    for (int i = 0; i < size; ++i) {
        data[i] = (unsigned char)(i * 5);
        snprintf(group, sizeof(group), "%02x ", i * 5 % 256);
        expected += group;
        if ((i + 1) % 33 == 0 || i + 1 == size) expected += "\n";
    }
    qt::ScopedEnv env("ENABLE_SL_LOG", "1");
    qt::StderrCapture cap;
    CLogger().log_dump(data.data(), size);
    EXPECT_EQ(expected, cap.finish());
}

INSTANTIATE_TEST_SUITE_P(Logger, Dump, ::testing::Values(0, 33, 67));

std::string logFromFreeFunction(int* line) {
    qt::StderrCapture cap;
    *line = __LINE__ + 1;
    LOG_DEBUG("free %s", "function");
    return cap.finish();
}

TEST(Logger, MacroPrefixCarriesProcessThreadFileLineAndFunction) {
    qt::ScopedEnv env("ENABLE_SL_LOG", "1");
    char tid[16];
    snprintf(tid, sizeof(tid), "%X", (unsigned)(unsigned long)pthread_self());
    const std::string head = "[P:" + std::to_string(getpid()) + " T:0x" + tid + "] ";

    qt::StderrCapture cap;
    int line = __LINE__ + 1;
    LOG_DEBUG("value %d", 42);
    std::string out = cap.finish();
    char lineField[16];
    snprintf(lineField, sizeof(lineField), "%-5d", line);
    // File base name cut to 10, line left-aligned in 5, function padded to 20.
    EXPECT_EQ(head + "logging_te:" + lineField + " TestBody             -- value 42\n", out);

    int freeLine = 0;
    out = logFromFreeFunction(&freeLine);
    snprintf(lineField, sizeof(lineField), "%-5d", freeLine);
    EXPECT_EQ(head + "logging_te:" + lineField + " logFromFreeFunction  -- free function\n", out);
}

TEST(Logger, MethodMarkers) {
    qt::ScopedEnv env("ENABLE_SL_LOG", "1");
    qt::StderrCapture cap;
    const char* none = nullptr;
    LOG_METHOD_START();
    LOG_METHOD_END();
    LOG_METHOD_END_INT(-3);
    LOG_METHOD_END_STR(none);
    LOG_METHOD_END_STR("ok");
    std::string out = cap.finish();
    for (const char* tail :
         {"-- ::::::::::::::: METHOD START ::::::::::::::: \n", "-- ::::::::::::::: METHOD END ::::::::::::::: \n",
          "-- ::::::::::::::: METHOD END ::::::::::::::: -3\n", "-- ::::::::::::::: METHOD END ::::::::::::::: NULL\n",
          "-- ::::::::::::::: METHOD END ::::::::::::::: ok\n"})
        EXPECT_NE(std::string::npos, out.find(tail)) << tail << "\n" << out;
}

TEST(Logger, MacroArgumentsAreNotEvaluatedWhenOff) {
    qt::ScopedEnv env("ENABLE_SL_LOG", "0");
    int calls = 0;
    auto count = [&calls] { return ++calls; };
    LOG_DEBUG("%d", count());
    LOG_ERROR("%d", count());
    LOG_DUMP(nullptr, count());
    EXPECT_EQ(0, calls);
}

// ------------------------------------------------------------------- utilities

struct MacCase {
    const char* text;
    int length;
    Bytes bytes;
};

class MacText : public ::testing::TestWithParam<MacCase> {};

TEST_P(MacText, ConvertsDigitPairsWithoutRejectingAnything) {
    const MacCase& c = GetParam();
    Bytes out(c.bytes.size() + 4, 0xEE);
    EXPECT_EQ(c.length, utilCopyMacTextToBytes(c.text, out.data()));
    EXPECT_EQ(c.bytes, Bytes(out.begin(), out.begin() + c.bytes.size()));
    for (size_t i = c.bytes.size(); i < out.size(); ++i) EXPECT_EQ(0xEE, out[i]) << "written past the end at " << i;
}

INSTANTIATE_TEST_SUITE_P(
    Util, MacText,
    ::testing::Values(MacCase{"00215A3bCcDd", 12, {0x00, 0x21, 0x5A, 0x3B, 0xCC, 0xDD}},
                      MacCase{"abc", 3, {0xAB, 0xC0}},       // odd length: terminator as low nibble
                      MacCase{"!:", 2, {0x1A}},              // '!' -15 & 15 = 1, ':' 10
                      MacCase{nullptr, 0, {}}));

struct TwoCharCase {
    const char* text;
    int result;
    long value;
};

class TwoChars : public ::testing::TestWithParam<TwoCharCase> {};

TEST_P(TwoChars, ParsesBase16) {
    long value = -99;
    EXPECT_EQ(GetParam().result, utilCreateByteFromTwoChars(GetParam().text, &value));
    EXPECT_EQ(GetParam().value, value);
}

INSTANTIATE_TEST_SUITE_P(Util, TwoChars,
                         ::testing::Values(TwoCharCase{"ab", 1, 0xAB}, TwoCharCase{" 1g", 1, 1},
                                           TwoCharCase{"zz", -1, -99}, TwoCharCase{"fffffffffffffffffffff", -1, -99}));

struct TextCase {
    const char* text;
    Bytes bytes;
};

class BytesFromText : public ::testing::TestWithParam<TextCase> {};

TEST_P(BytesFromText, SkipsCommentsAndNonHexAndDropsALoneDigit) {
    int count = -1;
    unsigned char* bytes = utilCreateBytesFromText(GetParam().text, &count);
    ASSERT_EQ((int)GetParam().bytes.size(), count);
    if (GetParam().text == nullptr) {
        EXPECT_EQ(nullptr, bytes);
    }
    if (count > 0) {
        ASSERT_NE(nullptr, bytes);
        EXPECT_EQ(GetParam().bytes, Bytes(bytes, bytes + count));
    }
    free(bytes);
}

INSTANTIATE_TEST_SUITE_P(
    Util, BytesFromText,
    ::testing::Values(TextCase{"/* 12 */ 3 4 5", {0x34}}, TextCase{"de:ad:BE:ef", {0xDE, 0xAD, 0xBE, 0xEF}},
                      TextCase{"0x12", {0x01}},  // 'x' is skipped, the final 2 is alone
                      TextCase{"1/* 99 */2", {0x12}}, TextCase{"12 /* 34", {0x12}}, TextCase{"7", {}},
                      TextCase{nullptr, {}}));

TEST(Util, TextFromBytesLayout) {
    struct Case {
        Bytes data;
        std::string text;
        int result;
    };
    std::string row32;
    for (int i = 0; i < 32; ++i) row32 += "00 ";
    std::vector<Case> cases = {
        {{}, "", 2},
        {Bytes(33, 0), "\n" + row32 + "\n00 ", 1 + 99 + 2},
        {Bytes(64, 0), "\n" + row32 + "\n" + row32, 2 + 192 + 2},
    };
    for (const Case& c : cases) {
        char* text = nullptr;
        EXPECT_EQ(c.result, utilCreateTextFromBytes(c.data.data(), (int)c.data.size(), &text));
        ASSERT_NE(nullptr, text);
        EXPECT_EQ(c.text, text);
        free(text);
    }
}

TEST(Util, BigEndianValue) {
    const unsigned char high[] = {0x80, 0x00, 0x00, 0x01}, mixed[] = {0x12, 0x34, 0x56, 0x78};
    EXPECT_EQ(2147483649ull, utilGetBEIntValue(high));  // no sign extension
    EXPECT_EQ(0x12345678ull, utilGetBEIntValue(mixed));
}

// More than a pipe holds, so the writes come back partial.
TEST(Util, WriteDataToFileWritesEverythingThroughAPipe) {
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    Bytes data(300000);
    for (size_t i = 0; i < data.size(); ++i) data[i] = (unsigned char)(i * 7 + i / 256);
    EXPECT_EQ(-1, writeDataToFile(-1, data.data(), 3));
    EXPECT_EQ(0, writeDataToFile(fds[1], data.data(), 0));
    Bytes got;
    std::thread reader([&] {
        unsigned char buf[4096];
        ssize_t n;
        while ((n = read(fds[0], buf, sizeof(buf))) > 0) got.insert(got.end(), buf, buf + n);
    });
    int rc = writeDataToFile(fds[1], data.data(), (unsigned)data.size());
    close(fds[1]);
    reader.join();
    close(fds[0]);
    EXPECT_EQ(0, rc);
    EXPECT_EQ(data, got);
}

class ShellQuote : public ::testing::TestWithParam<std::pair<const char*, const char*>> {};

TEST_P(ShellQuote, QuotesAndSurvivesTheShell) {
    const std::string value = GetParam().first;
    const std::string quoted = utilShellQuote(value);
    EXPECT_EQ(GetParam().second, quoted);
    std::string out;
    ASSERT_EQ(0, qt::runProgram({"/bin/sh", "-c", "printf %s " + quoted}, {}, &out, nullptr, 60));
    EXPECT_EQ(value, out);
}

INSTANTIATE_TEST_SUITE_P(Util, ShellQuote,
                         ::testing::Values(std::make_pair("", "''"), std::make_pair("it's", "'it'\\''s'"),
                                           std::make_pair("''", "''\\'''\\'''"),
                                           std::make_pair("$(echo hi); `id` \"a\" \\n *", "'$(echo hi); `id` \"a\" \\n *'"),
                                           std::make_pair("a\nb", "'a\nb'")));

}  // namespace
