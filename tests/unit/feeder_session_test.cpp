// A long feeder job through the entry points of the built library: 500 small
// pages in one job, handed out one per start. Every page is its own page of
// the formula; descriptors stay flat; the job directory empties as the pages
// go and is gone after close (LeakSanitizer checks the memory in the ASan tree).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "session_testutil.h"

namespace {

using st::sane;

// The job directories of the backend under dir.
std::vector<std::string> jobDirs(const std::string& dir) {
    std::vector<std::string> jobs;
    for (const std::string& n : qt::listDir(dir))
        if (n.rfind("quarto-job-", 0) == 0) jobs.push_back(n);
    return jobs;
}

// Grey page p: (X + 64 (p - 1) + 2 Y) mod 256.
std::string greyPage(int pixels, int lines, int page) {
    std::string out;
    for (int y = 0; y < lines; ++y)
        for (int x = 0; x < pixels; ++x) out += (char)(unsigned char)(x + 64 * (page - 1) + 2 * y);
    return out;
}

TEST(FeederSession, FiveHundredPagesOneJobNoGrowthNothingLeft) {
    ASSERT_TRUE(sane().ok) << "the built backend could not be loaded";
    const int SHEETS = 500;
    qt::TempDir tmp;
    qt::ScopedEnv tmpdir("TMPDIR", tmp.path().c_str());
    // A 1 x 1 inch area in grey at 150 dpi, from the feeder as one job.
    st::Rig rig(st::Q5100, "[INTEGERS]\nCOLORDEPTH=1\nCURRENTDPI=150\n[DOUBLES]\nCURRENTBRX=25.4\nCURRENTBRY=25.4\n",
                "sheets " + std::to_string(SHEETS) + "\nmultipage on\n");
    ASSERT_TRUE(rig.loaded);
    SANE_Handle h = nullptr;
    ASSERT_EQ(SANE_STATUS_GOOD, sane().open("libusb/001/004", &h));
    char feeder[] = "Automatic Document Feeder";
    ASSERT_EQ(SANE_STATUS_GOOD, sane().control_option(h, st::OPT_SOURCE, SANE_ACTION_SET_VALUE, feeder, nullptr));

    int fdsAfterFirst = -1;
    int lastPage = 0;
    for (int p = 1; p <= SHEETS; ++p) {
        st::Page page;
        ASSERT_EQ(SANE_STATUS_GOOD, sane().get_parameters(h, &page.params));
        ASSERT_EQ(SANE_STATUS_GOOD, sane().start(h)) << "page " << p;
        st::readPage(h, 65536, page);
        ASSERT_EQ(SANE_STATUS_EOF, page.end) << "page " << p;
        const std::string got(page.data.begin(), page.data.end());
        ASSERT_EQ(greyPage(page.params.pixels_per_line, page.params.lines, p), got) << "page " << p;
        if (p == 1) {
            fdsAfterFirst = st::openFdCount();
            EXPECT_EQ(1u, jobDirs(tmp.path()).size()) << "one job directory";
        }
        lastPage = p;
    }
    EXPECT_EQ(SHEETS, lastPage);
    EXPECT_EQ(fdsAfterFirst, st::openFdCount());
    const std::vector<std::string> jobs = jobDirs(tmp.path());
    ASSERT_EQ(1u, jobs.size());
    EXPECT_TRUE(qt::listDir(tmp.file(jobs[0])).empty()) << "every page was taken";
    EXPECT_EQ(SANE_STATUS_NO_DOCS, sane().start(h));
    sane().cancel(h);
    sane().close(h);
    EXPECT_TRUE(jobDirs(tmp.path()).empty());
    EXPECT_EQ(1, st::countEvents("scan dev=0 start")) << "one job for every sheet";
    usbsim_reset();
}

}  // namespace
