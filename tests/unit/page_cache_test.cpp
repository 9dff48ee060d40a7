// The page cache and the progress display of feeder jobs: page files in
// first-in first-out order, what a take leaves behind, files planted where a
// page or the data file goes, descriptors, and the progress program's start,
// its argument and the lines it is sent.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "ScanReadStatusDisplayMgr.h"
#include "ScanRecordDataMgr.h"
#include "testutil.h"

namespace {

using Bytes = std::vector<unsigned char>;

int openFds() { return (int)qt::listDir("/proc/self/fd").size(); }

Bytes bytes(const std::string& s) { return Bytes(s.begin(), s.end()); }

class PageCache : public ::testing::Test {
protected:
    void SetUp() override { cache->setBasePath(const_cast<char*>(dir.path().c_str())); }
    void TearDown() override { cache->clearPages(); }
    // The name of the page file n pages after the next one (the number goes
    // on from where earlier tests left it).
    std::string pageName(int n) {
        std::string next;
        cache->constructFilePath(next);
        return "data." + std::to_string(std::stoi(next.substr(next.rfind('.') + 1)) + n);
    }
    bool put(const std::string& s) {
        Bytes b = bytes(s);
        return cache->putPageFragment(b.data(), (unsigned)b.size());
    }
    std::string take() {
        unsigned char* data = nullptr;
        unsigned int len = 0;
        if (!cache->takePage(&data, &len)) return "<failed>";
        std::string s((const char*)data, len);
        free(data);
        return s;
    }
    qt::TempDir dir;
    ScanRecordDataMgr* cache = ScanRecordDataMgr::getInstance();
};

TEST_F(PageCache, PagesComeBackOldestFirstAndEachFileGoesWithItsTake) {
    const std::string p1 = pageName(0), p2 = pageName(1), p3 = pageName(2);
    ASSERT_TRUE(put("first "));
    ASSERT_TRUE(put("page"));
    EXPECT_EQ(1, cache->getTotalPages()) << "the page being written counts";
    ASSERT_TRUE(cache->endPage());
    ASSERT_TRUE(put("second page"));
    ASSERT_TRUE(cache->endPage());
    ASSERT_TRUE(put("third"));
    ASSERT_TRUE(cache->endPage());
    EXPECT_FALSE(cache->endPage()) << "no page is open";
    EXPECT_EQ((std::vector<std::string>{p1, p2, p3}), qt::listDir(dir.path()));
    EXPECT_EQ("first page", qt::readFile(dir.file(p1)));

    EXPECT_EQ("first page", take());
    EXPECT_EQ(2, cache->getTotalPages());
    EXPECT_EQ((std::vector<std::string>{p2, p3}), qt::listDir(dir.path()));
    // The number goes down with the take, so the next page would be the third
    // one's file again: the queued file is refused, never overwritten.
    EXPECT_EQ(p3, pageName(0));
    EXPECT_FALSE(put("overwrite?"));
    EXPECT_EQ("third", qt::readFile(dir.file(p3)));

    EXPECT_EQ("second page", take());
    EXPECT_EQ("third", take());
    EXPECT_EQ("<failed>", take()) << "nothing is queued";
    EXPECT_EQ(0, cache->getTotalPages());
    EXPECT_TRUE(qt::listDir(dir.path()).empty());
}

// A link or a file that somebody put where the next page goes is refused and
// left as it was; so is a queued page replaced by a link before its take.
TEST_F(PageCache, PlantedLinksAndFilesAreNeverWrittenOrRead) {
    qt::TempDir elsewhere;
    const std::string victim = elsewhere.file("victim");
    qt::writeFile(victim, "untouched");
    const std::string next = dir.file(pageName(0));
    ASSERT_EQ(0, symlink(victim.c_str(), next.c_str()));
    EXPECT_FALSE(put("through the link"));
    unlink(next.c_str());
    qt::writeFile(next, "somebody's");
    EXPECT_FALSE(put("into the file"));
    EXPECT_EQ("untouched", qt::readFile(victim));
    EXPECT_EQ("somebody's", qt::readFile(next));
    unlink(next.c_str());

    ASSERT_TRUE(put("page"));
    ASSERT_TRUE(cache->endPage());
    const std::string queued = qt::listDir(dir.path()).back();
    ASSERT_EQ(0, unlink(dir.file(queued).c_str()));
    ASSERT_EQ(0, symlink(victim.c_str(), dir.file(queued).c_str()));
    EXPECT_EQ("<failed>", take());
    EXPECT_EQ(1, cache->getTotalPages()) << "a failed take keeps the page queued";
    EXPECT_EQ("untouched", qt::readFile(victim));
}

// Many pages written and taken leave no descriptor open; clearing deletes the
// queued pages and the one still being written, and closes it.
TEST_F(PageCache, NoDescriptorOutlivesAPageAndClearingLeavesNothing) {
    const int before = openFds();
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(put("page " + std::to_string(i)));
        ASSERT_TRUE(cache->endPage());
        ASSERT_EQ("page " + std::to_string(i), take());
    }
    EXPECT_EQ(before, openFds());

    ASSERT_TRUE(put("ended"));
    ASSERT_TRUE(cache->endPage());
    ASSERT_TRUE(put("half a page"));
    EXPECT_EQ(before + 1, openFds());
    cache->clearPages();
    EXPECT_EQ(0, cache->getTotalPages());
    EXPECT_TRUE(qt::listDir(dir.path()).empty());
    EXPECT_EQ(before, openFds());

    // Discarding the page being written keeps the ended ones.
    ASSERT_TRUE(put("whole"));
    ASSERT_TRUE(cache->endPage());
    ASSERT_TRUE(put("broken off"));
    EXPECT_TRUE(cache->discardCurrentPage());
    EXPECT_FALSE(cache->discardCurrentPage());
    EXPECT_EQ(1, cache->getTotalPages());
    EXPECT_EQ("whole", take());
    EXPECT_EQ(before, openFds());
}

// ---------------------------------------------------------------- progress display

class ProgressDisplay : public ::testing::Test {
protected:
    void SetUp() override {
        // A stand-in window program: records its arguments and the data file's
        // device and inode, then exits.
        program = dir.file("it's a window");
        qt::writeFile(program, "#!/bin/sh\nprintf '%s\\n' \"$#\" \"$1\" > '" + dir.file("args.tmp") + "'\nmv '" +
                                   dir.file("args.tmp") + "' '" + dir.file("args") + "'\n");
        chmod(program.c_str(), 0700);
        display->setBasePath(const_cast<char*>(jobDir.path().c_str()));
    }
    void TearDown() override {
        display->stop();
        display->setProgressWindowAppCommand("");
    }
    // Waits (up to 10 s) for the stand-in program to have run.
    std::string programArgs() {
        for (int i = 0; i < 1000 && !qt::fileExists(dir.file("args")); ++i) usleep(10000);
        return qt::fileExists(dir.file("args")) ? qt::readFile(dir.file("args")) : std::string("<not run>");
    }
    qt::TempDir dir;
    qt::TempDir jobDir;
    std::string program;
    ScanReadStatusDisplayMgr* display = ScanReadStatusDisplayMgr::getInstance();
};

TEST_F(ProgressDisplay, NothingStartsWithoutADisplayOrAProgram) {
    EXPECT_FALSE(display->stop()) << "stop before start";
    for (const char* value : {(const char*)nullptr, ""}) {
        qt::ScopedEnv noDisplay("DISPLAY", value);
        display->setProgressWindowAppCommand(program.c_str());
        EXPECT_EQ(0, display->start());
        EXPECT_FALSE(display->isRunning());
        EXPECT_FALSE(display->update("1"));
    }
    qt::ScopedEnv withDisplay("DISPLAY", ":99");
    display->setProgressWindowAppCommand("");
    EXPECT_EQ(0, display->start());
    EXPECT_FALSE(display->isRunning());
    usleep(100000);
    EXPECT_FALSE(qt::fileExists(dir.file("args")));
    EXPECT_TRUE(qt::listDir(jobDir.path()).empty());
    EXPECT_FALSE(display->stop());
}

// The program gets exactly the data file as its one argument, even with a
// quote and a blank in its own path; every update is one line, "[END]" ends
// the file, and the file and its descriptor are gone after stop.
TEST_F(ProgressDisplay, TheProgramFollowsOneDataFileThatStopEnds) {
    qt::ScopedEnv withDisplay("DISPLAY", ":99");
    const int before = openFds();
    display->setProgressWindowAppCommand(program.c_str());
    ASSERT_EQ(0, display->start());
    ASSERT_TRUE(display->isRunning());
    EXPECT_EQ(0, display->start()) << "a second start changes nothing";
    std::vector<std::string> files = qt::listDir(jobDir.path());
    ASSERT_EQ(1u, files.size());
    EXPECT_EQ(0u, files[0].rfind(".tmp.display.", 0));
    const std::string data = jobDir.file(files[0]);
    EXPECT_EQ("1\n" + data + "\n", programArgs());

    int reader = open(data.c_str(), O_RDONLY);
    ASSERT_GE(reader, 0);
    EXPECT_TRUE(display->update("1"));
    EXPECT_TRUE(display->update("2"));
    EXPECT_TRUE(display->stop());
    EXPECT_FALSE(display->isRunning());
    EXPECT_FALSE(qt::fileExists(data));
    char text[64] = {0};
    EXPECT_GT(read(reader, text, sizeof(text) - 1), 0);
    close(reader);
    EXPECT_EQ(std::string("1\n2\n[END]\n[END]\n"), text);
    EXPECT_EQ(before, openFds());
    EXPECT_FALSE(display->update("3"));
}

TEST_F(ProgressDisplay, AProgramTextIsNeverRunByTheShell) {
    qt::ScopedEnv withDisplay("DISPLAY", ":99");
    const std::string marker = dir.file("ran");
    display->setProgressWindowAppCommand(("true; touch '" + marker + "' #").c_str());
    ASSERT_EQ(0, display->start());
    EXPECT_TRUE(display->stop());
    usleep(200000);
    EXPECT_FALSE(qt::fileExists(marker));
}

// A link planted where the data file goes: nothing is written through it and
// no program is started.
TEST_F(ProgressDisplay, APlantedDataFileStopsTheStart) {
    qt::ScopedEnv withDisplay("DISPLAY", ":99");
    qt::TempDir elsewhere;
    const std::string victim = elsewhere.file("victim");
    qt::writeFile(victim, "untouched");
    const long long now = (long long)time(nullptr);
    for (long long t = now; t <= now + 2; ++t)
        symlink(victim.c_str(), jobDir.file(".tmp.display." + std::to_string(t)).c_str());
    display->setProgressWindowAppCommand(program.c_str());
    EXPECT_EQ(0, display->start());
    EXPECT_FALSE(display->isRunning());
    EXPECT_FALSE(display->update("1"));
    EXPECT_EQ("untouched", qt::readFile(victim));
    usleep(100000);
    EXPECT_FALSE(qt::fileExists(dir.file("args")));
}

}  // namespace
