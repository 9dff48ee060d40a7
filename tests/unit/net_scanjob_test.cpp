// The network scan job at the transport: the command line the scan program
// gets, values refused before anything runs, and the pages the program leaves
// as ReadImage hands them out. The plain rotations, interpolation and the
// command line of each mode are pinned by the network scans end to end. A shell script stands in for the program: it
// records its arguments and copies prepared pages to where --filename points.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <chrono>
#include <cstring>
#include <future>
#include <string>
#include <vector>

#include "ConfigReader.h"
#include "DataBuffer.h"
#include "NetComm.h"
#include "WicketEncoder.h"
#include "netjob.h"
#include "testutil.h"

namespace {

using Bytes = std::vector<unsigned char>;

const char PROGRAM[] =
    "#!/bin/sh\n"
    "printf '%s\\0' \"$@\" > \"$QUARTO_TEST_ARGS\"\n"
    "for a in \"$@\"; do case \"$a\" in --filename=*) f=\"${a#--filename=}\";; esac; done\n"
    "if [ -n \"$QUARTO_TEST_PAGES\" ]; then cp \"$QUARTO_TEST_PAGES\"/* \"$(dirname \"$f\")/\" || exit 3; fi\n";

// Page p of the simulator's formula (netjob.h), depth being the colour depth code.
Bytes pattern(int depth, int w, int h, int page = 1) { return qt::netPage(qt::NetMode(depth), w, h, page).data; }

std::string zlibPage(int depth, int dpi, int w, int h, const Bytes& pixels, const char* magic = nullptr) {
    static const char* const MAGIC[] = {"P4", "P5", "P6"};
    std::string s = std::string(magic ? magic : MAGIC[depth]) + "\n#QVTRES=" + std::to_string(dpi) + "\n" +
                    std::to_string(w) + " " + std::to_string(h) + "\n" + (depth ? "255\n" : "");
    uLongf n = compressBound((uLong)pixels.size());
    Bytes z(n);
    compress(z.data(), &n, pixels.data(), (uLong)pixels.size());
    return s + std::string(z.begin(), z.begin() + (long)n);
}

// Every piece ReadImage hands out, joined; the piece sizes go to pieces.
Bytes readAll(NetComm& net, std::vector<int>* pieces = nullptr) {
    DataBuffer buffer;
    for (int i = 0; i < 1000000; ++i) {
        int len = -1;
        int rc = net.ReadImage(&len, &buffer, nullptr);
        if (rc == 1) break;
        EXPECT_EQ(0, rc);
        if (pieces) pieces->push_back(len);
    }
    Bytes all((size_t)buffer.GetAllDataSize());
    if (!all.empty()) buffer.GetAllData(all.data(), (int)all.size());
    return all;
}

bool exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

}  // namespace

class NetJob : public ::testing::Test {
protected:
    NetJob()
        : pages(dir.file("pages")),
          job(dir.file("job")),
          argsEnv("QUARTO_TEST_ARGS", dir.file("args").c_str()),
          pagesEnv("QUARTO_TEST_PAGES", pages.c_str()) {
        mkdir(pages.c_str(), 0700);
        qt::writeFile(dir.file("quillrun"), PROGRAM);
        chmod(dir.file("quillrun").c_str(), 0700);
        const std::pair<const char*, int> ints[] = {
            {"COLORDEPTH", 2}, {"CURRENTDPI", 300}, {"BOXKIND", 0},       {"ORIGINALSIZE", 4},
            {"DOCUMENTSOURCE", 9}, {"CONTENTTYPE", 1}, {"BRIGHTNESS", 5}, {"CONTRAST", 3},
            {"COLORDROPOUTTHRESHOLD", 128}, {"SCAN_NOW", 1}};
        for (const auto& kv : ints) store.SetIntOption(kv.first, kv.second);
        store.SetStringOption("TEMPDIRECTORY", job.c_str());
        store.SetStringOption("BINARY", dir.file("quillrun").c_str());
        store.SetStringOption("USERNAME", "alice");
        store.SetStringOption("PROFILENAME", "Default");
        net.setConfigReader(&store);
        net.setIPAddress("192.0.2.10");
    }
    void put(const std::string& name, const std::string& content) { qt::writeFile(pages + "/" + name, content); }
    std::vector<std::string> args() {
        std::string text = qt::readFile(dir.file("args"));
        std::vector<std::string> out;
        for (size_t at = 0, nul; (nul = text.find('\0', at)) != std::string::npos; at = nul + 1)
            out.push_back(text.substr(at, nul - at));
        return out;
    }
    bool ran() { return exists(dir.file("args")); }

    qt::TempDir dir;
    std::string pages, job;
    qt::ScopedEnv argsEnv, pagesEnv;
    ConfigReader store;
    NetComm net;
};

// ------------------------------------------------------------- command line

struct CommandCase {
    const char* name;
    std::vector<std::pair<const char*, int>> ints;
    const char* user;
    const char* expected;  // after the program and page file
    bool morePages;
};
class NetCommand : public NetJob, public ::testing::WithParamInterface<CommandCase> {};

TEST_P(NetCommand, IsTheDocumentedOne) {
    const CommandCase& c = GetParam();
    store.SetStringOption("TEMPDIRECTORY", "/var/tmp/qjob");
    store.SetStringOption("BINARY", "/usr/bin/quillrun");
    store.SetStringOption("USERNAME", c.user);
    for (const auto& kv : c.ints) store.SetIntOption(kv.first, kv.second);
    std::string command, page;
    bool more = !c.morePages;
    ASSERT_EQ(0, net.buildScanCommand(command, page, more));
    EXPECT_EQ(std::string("'/usr/bin/quillrun' --filename='/var/tmp/qjob/Defaultscan.pxm' --ip-address=192.0.2.10 "
                          "--interface=any ") + c.expected,
              command);
    EXPECT_EQ("/var/tmp/qjob/Defaultscan.pxm", page);
    EXPECT_EQ(c.morePages, more);
}

INSTANTIATE_TEST_SUITE_P(
    Jobs, NetCommand,
    ::testing::Values(
        // Grey sends no contrast; the other family's lists and +3 adjustments; high resolution.
        CommandCase{"GreyOtherFamily",
                    {{"COLORDEPTH", 1}, {"CURRENTDPI", 1200}, {"BOXKIND", 1}, {"ORIGINALSIZE", 23},
                     {"DOCUMENTSOURCE", 5}, {"BRIGHTNESS", -2}, {"CONTRAST", 2}, {"SCANBOTHSIDES", 1},
                     {"ORIENTATION", 1}, {"MIRRORIMAGE", 1}, {"NEGATIVEIMAGE", 1}, {"COLORDROPOUT", 2},
                     {"COLORDROPOUTTHRESHOLD", 77}, {"BKGREMOVAL", 3}, {"CONTENTTYPE", 2}, {"SHARPNESS", 4},
                     {"SCAN_NOW", 0}},
                    "bob",
                    "--user-name='bob' --profile-name='Default' --content-type=2 --resolution=1200 --mode=1 "
                    "--original-size=14 --orientation=1 --bkgremoval=3 --mirrorimage=1 --negativeimage=1 "
                    "--scan-both-sides=1 --brightness=1 --colordropout=2 --colordropoutthreshold=77 --compression=6 "
                    "--type=4 --text-mode=0 --documentsource=6 --sharpness=4 --start-now=0",
                    true},
        // Line art at 1200 keeps the low compression; "Book Original" maps to 15.
        CommandCase{"LineArtBook",
                    {{"COLORDEPTH", 0}, {"CURRENTDPI", 1200}, {"ORIGINALSIZE", 27}, {"DOCUMENTSOURCE", 0}}, "",
                    "--user-name='' --profile-name='Default' --content-type=1 --resolution=1200 --mode=0 "
                    "--original-size=15 --orientation=0 --bkgremoval=0 --mirrorimage=0 --negativeimage=0 "
                    "--scan-both-sides=0 --brightness=5 --colordropout=0 --colordropoutthreshold=128 --compression=2 "
                    "--type=3 --text-mode=0 --documentsource=0 --sharpness=0 --start-now=1",
                    true}),
    [](const ::testing::TestParamInfo<CommandCase>& i) { return std::string(i.param.name); });

struct RefusedCase {
    const char* key;  // "IP" for the transport's address
    std::string text;
    int number;
};
class NetRefused : public NetJob, public ::testing::WithParamInterface<RefusedCase> {};

TEST_P(NetRefused, RunsNothingAndTouchesNoFile) {
    const RefusedCase& c = GetParam();
    if (strcmp(c.key, "IP") == 0)
        net.setIPAddress(c.text.c_str());
    else if (c.number != 0)
        store.SetIntOption(c.key, c.number);
    else
        store.SetStringOption(c.key, c.text.c_str());
    put("Defaultscan.pxm", zlibPage(2, 300, 8, 8, pattern(2, 8, 8)));
    EXPECT_EQ(2, net.openDevice());
    EXPECT_FALSE(ran());
    EXPECT_FALSE(exists(job));
    EXPECT_EQ(0, net.getCounter());
}

INSTANTIATE_TEST_SUITE_P(
    Values, NetRefused,
    ::testing::Values(RefusedCase{"IP", "192.0.2", 0}, RefusedCase{"IP", "192.0.2.1;touch marker", 0},
                      RefusedCase{"IP", "", 0}, RefusedCase{"IP", "192.0.2.256", 0},
                      RefusedCase{"TEMPDIRECTORY", "relative/job", 0}, RefusedCase{"TEMPDIRECTORY", "/", 0},
                      RefusedCase{"TEMPDIRECTORY", "/tmp/../etc", 0}, RefusedCase{"TEMPDIRECTORY", "/tmp/./x", 0},
                      RefusedCase{"TEMPDIRECTORY", "/tmp/x/", 0}, RefusedCase{"PROFILENAME", "../Default", 0},
                      RefusedCase{"BINARY", "", 0}, RefusedCase{"USERNAME", std::string(600, 'u'), 0},
                      RefusedCase{"ORIGINALSIZE", "", 38}, RefusedCase{"ORIGINALSIZE", "", -1},
                      RefusedCase{"DOCUMENTSOURCE", "", 10}));

// Shell syntax in the user and profile names reaches the program as text.
TEST_F(NetJob, HostileNamesAreArgumentsNotCommands) {
    const std::string marker = dir.file("marker");
    const std::string user = "x'; touch " + marker + "; '$(touch " + marker + ")`id`";
    const std::string profile = "p'\"$(date)\";`date`";
    store.SetStringOption("USERNAME", user.c_str());
    store.SetStringOption("PROFILENAME", profile.c_str());
    put(profile + "scan.pxm", zlibPage(2, 300, 8, 8, pattern(2, 8, 8)));
    ASSERT_EQ(19, net.openDevice());
    std::vector<std::string> a = args();
    ASSERT_EQ(24u, a.size());
    EXPECT_EQ("--filename=" + job + "/" + profile + "scan.pxm", a[0]);
    EXPECT_EQ("--user-name=" + user, a[3]);
    EXPECT_EQ("--profile-name=" + profile, a[4]);
    EXPECT_FALSE(exists(marker));
}

// ------------------------------------------------------------------- pages

struct PageCase {
    const char* name;
    int depth, fileDpi, dpi, rotate, w, h;
    int family = 3;
};
class NetPage : public NetJob, public ::testing::WithParamInterface<PageCase> {};

TEST_P(NetPage, IsDecodedTurnedAndScaledAsTheOptionsSay) {
    const PageCase& c = GetParam();
    store.SetIntOption("COLORDEPTH", c.depth);
    store.SetIntOption("CURRENTDPI", c.dpi);
    // Families 14 and 15 from 1200 dpi send Wicket bands in grey and colour,
    // which decode as the reference decoder decodes each band.
    const bool wicket = (c.family == 14 || c.family == 15) && c.dpi >= 1200 && c.depth != 0;
    const qt::NetImage source = qt::netPage(qt::NetMode(c.depth), c.w, c.h);
    WicketEncodeOptions opt;
    opt.iBandLines = 24;
    const Bytes bands = wicket ? wicketEncodeImage(source.data.data(), c.w, c.h, source.iBpp, opt) : Bytes();
    put("Defaultscan.pxm", wicket ? std::string(bands.begin(), bands.end())
                                  : zlibPage(c.depth, c.fileDpi, c.w, c.h, source.data));
    put("Defaultscan.conf", "COMMENT=x\nROTATE=" + std::to_string(c.rotate) + "\nFAMILYID=" +
                                std::to_string(c.family) + "\n");
    ASSERT_EQ(19, net.openDevice());
    EXPECT_EQ(0, net.getCounter());
    EXPECT_FALSE(exists(job + "/Defaultscan.pxm")) << "the page file is removed once decoded";
    EXPECT_FALSE(exists(job + "/unrotated.pxm"));

    const qt::NetImage turned = qt::rotatePage(wicket ? qt::wicketPage(source, 75, 24) : source, c.rotate);
    const bool interpolate = !wicket && c.depth != 0 && c.fileDpi < c.dpi;
    const qt::NetImage want = interpolate ? qt::resizePage(turned, c.fileDpi, c.dpi) : turned;
    std::vector<int> pieces;
    Bytes got = readAll(net, &pieces);
    ASSERT_EQ(want.data.size(), got.size());
    EXPECT_TRUE(want.data == got);
    for (size_t i = 0; i + 1 < pieces.size(); ++i) EXPECT_EQ(16384, pieces[i]);
    EXPECT_EQ(turned.iWidth, store.GetIntOption("WIDTH_SCAN"));
    EXPECT_EQ(turned.iHeight, store.GetIntOption("HEIGHT_SCAN"));
    EXPECT_EQ(interpolate ? want.iWidth : 0, store.GetIntOption("INTER_WIDTH"));
    EXPECT_EQ(interpolate ? want.iHeight : 0, store.GetIntOption("INTER_HEIGHT"));
    EXPECT_EQ(interpolate ? c.dpi : c.fileDpi, store.GetIntOption("CURRENTDPI"));
    if (!wicket) {
        EXPECT_EQ(c.fileDpi, store.GetIntOption("FILE_DPI"));
    }
    EXPECT_EQ(0, net.closeDevice());
    EXPECT_FALSE(exists(job)) << "closing after the last page removes the directory";
}

INSTANTIATE_TEST_SUITE_P(
    Pages, NetPage,
    ::testing::Values(PageCase{"Colour45", 2, 300, 300, 45, 16, 8}, PageCase{"Colour400", 2, 300, 300, 400, 16, 8},
                      PageCase{"GreyWidthOnly", 1, 200, 300, 0, 30, 7},
                      PageCase{"Turned90ThenScaled", 2, 100, 300, 90, 13, 5},
                      PageCase{"LineArtNotScaled", 0, 150, 300, 0, 48, 12},
                      PageCase{"LargerThanRequested", 2, 600, 300, 0, 20, 10},
                      PageCase{"WicketColour15Turned180", 2, 1200, 1200, 180, 100, 70, 15},
                      PageCase{"WicketGrey14Turned90", 1, 1200, 1200, 90, 100, 70, 14},
                      PageCase{"LineArtFamily14IsZlib", 0, 1200, 1200, 0, 64, 40, 14},
                      PageCase{"Colour600Family14IsZlib", 2, 600, 600, 0, 40, 30, 14}),
    [](const ::testing::TestParamInfo<PageCase>& i) { return std::string(i.param.name); });

struct BrokenCase {
    const char* name;
    std::string page;
    std::string side;
};
class NetBroken : public NetJob, public ::testing::WithParamInterface<BrokenCase> {};

std::string wicketPage(std::vector<std::pair<int, int>> geometry, int cut = 0) {
    std::string out;
    for (auto& g : geometry) {
        Bytes px = pattern(2, g.first, g.second);
        Bytes band = wicketEncodeBand(px.data(), g.first, g.second, 3L * g.first, 3, 75, true);
        out += std::string(band.begin(), band.end());
    }
    return out.substr(0, out.size() - cut);
}

TEST_P(NetBroken, FailsTheJobAndLeavesNothingBehind) {
    const BrokenCase& c = GetParam();
    store.SetIntOption("SCANBOTHSIDES", 1);
    if (!c.side.empty()) store.SetIntOption("CURRENTDPI", 1200);
    put("Defaultscan.pxm", c.page);
    if (!c.side.empty()) put("Defaultscan.conf", c.side);
    EXPECT_EQ(15, net.openDevice());
    EXPECT_EQ(0, net.getCounter());
    EXPECT_FALSE(exists(job));
    EXPECT_EQ(1, [&] {
        DataBuffer b;
        int n;
        return net.ReadImage(&n, &b, nullptr);
    }());
}

const Bytes SMALL = pattern(2, 16, 16);
const std::string GOOD = zlibPage(2, 300, 16, 16, SMALL);
std::string replaced(std::string s, size_t at, const std::string& with) { return s.replace(at, with.size(), with); }

INSTANTIATE_TEST_SUITE_P(
    Pages, NetBroken,
    ::testing::Values(
        BrokenCase{"Empty", "", ""}, BrokenCase{"Truncated", GOOD.substr(0, GOOD.size() - 6), ""},
        BrokenCase{"CorruptStream", replaced(GOOD, 30, "\xff\xff\xff\xff"), ""},
        BrokenCase{"ShortStream", zlibPage(2, 300, 16, 15, pattern(2, 16, 15)).replace(15, 5, "16 16"), ""},
        BrokenCase{"GreyMagic", zlibPage(2, 300, 16, 16, SMALL, "P5"), ""},
        BrokenCase{"NoResolution", "P6\n16 16\n255\n" + GOOD.substr(25), ""},
        BrokenCase{"ResolutionZero", replaced(GOOD, 3, "#QVTRES=000"), ""},
        BrokenCase{"HugeSize", "P6\n#QVTRES=300\n1000000 1000000\n255\n" + GOOD.substr(25), ""},
        BrokenCase{"OverflowingSize", "P6\n#QVTRES=300\n99999999999999999999 2\n255\n" + GOOD.substr(25), ""},
        BrokenCase{"NoMaximumLine", "P6\n#QVTRES=300\n16 16\n", ""},
        BrokenCase{"LongLine", "P6\n#QVTRES=300" + std::string(100, '0') + "\n16 16\n255\n", ""},
        BrokenCase{"BandCut", wicketPage({{16, 8}, {16, 8}}, 5), "FAMILYID=14\n"},
        BrokenCase{"BandWidths", wicketPage({{16, 8}, {24, 8}}), "FAMILYID=14\n"},
        BrokenCase{"BandGarbage", wicketPage({{16, 8}}) + std::string(20, '\x7f'), "FAMILYID=14\n"},
        BrokenCase{"BandCorrupt", replaced(wicketPage({{16, 8}}), 16, std::string(6, '\xff')), "FAMILYID=14\n"},
        BrokenCase{"BandHuge", replaced(wicketPage({{16, 8}}), 4, std::string("\x00\x00\xff\xff\x00\x00\xff\xff", 8)),
                   "FAMILYID=14\n"}),
    [](const ::testing::TestParamInfo<BrokenCase>& i) { return std::string(i.param.name); });

// A page file far longer than any compressed form of the page its header
// announces (here a 16 x 16 page followed by 1.5 GB of zeros, a sparse file)
// is refused without its bulk being read into memory.
TEST_F(NetJob, PageFileFarLongerThanItsPageIsRefusedUnread) {
    const std::string page = pages + "/Defaultscan.pxm";
    put("Defaultscan.pxm", GOOD);
    ASSERT_EQ(0, truncate(page.c_str(), (off_t)GOOD.size() + (1536L << 20)));
    struct rusage before, after;
    getrusage(RUSAGE_SELF, &before);
    // The program copies the page; cp keeps it sparse.
    EXPECT_EQ(15, net.openDevice());
    getrusage(RUSAGE_SELF, &after);
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 256L << 10) << "kilobytes more at the peak";
    EXPECT_FALSE(exists(job));
}

// A feeder job: the program runs once and leaves numbered pages; a page
// without a side file keeps the first page's rotation; the missing next page
// ends the job.
TEST_F(NetJob, FeederPagesAreNumberedAndTheMissingOneEndsTheJob) {
    store.SetIntOption("SCAN_SOURCE", 1);
    const char* names[] = {"Defaultscan.pxm", "Defaultscan.pxm.1", "Defaultscan.pxm.2"};
    for (int p = 0; p < 3; ++p) put(names[p], zlibPage(2, 300, 12, 6, pattern(2, 12, 6, p + 1)));
    put("Defaultscan.conf", "ROTATE=180\n");
    put("Defaultscan.conf.2", "ROTATE=0\n");
    for (int p = 0; p < 3; ++p) {
        ASSERT_EQ(19, net.openDevice()) << p;
        if (p == 0) {
            ASSERT_EQ(0, unlink(dir.file("args").c_str()));
        }
        EXPECT_EQ(p + 1, net.getCounter());
        EXPECT_TRUE(qt::rotatePage(qt::netPage(qt::NET_COLOR, 12, 6, p + 1), p < 2 ? 180 : 0).data == readAll(net))
            << p;
        EXPECT_EQ(0, net.closeDevice());
        EXPECT_TRUE(exists(job)) << "the job's other pages stay until it ends";
    }
    EXPECT_EQ(20, net.openDevice());
    EXPECT_FALSE(ran()) << "the program ran once for the whole job";
    EXPECT_EQ(0, net.getCounter());
    EXPECT_FALSE(exists(job));
}

// A side file or page that is a named pipe is not a file the program wrote:
// reading it must not wait for a writer that never comes. The side file counts
// as missing; the page fails the job.
TEST_F(NetJob, NamedPipesInsteadOfFilesDoNotHoldTheScan) {
    store.SetIntOption("SCAN_SOURCE", 1);
    put("Defaultscan.pxm", zlibPage(2, 300, 12, 6, pattern(2, 12, 6)));
    ASSERT_EQ(0, mkdir(job.c_str(), 0700));
    ASSERT_EQ(0, mkfifo((job + "/Defaultscan.conf").c_str(), 0600));
    ASSERT_EQ(0, mkfifo((job + "/Defaultscan.pxm.1").c_str(), 0600));
    // Runs openDevice, and unblocks it through the pipe if it still waits after
    // a while (a failure then).
    auto openWithin = [&](const std::string& pipe) {
        auto result = std::async(std::launch::async, [&] { return net.openDevice(); });
        if (result.wait_for(std::chrono::seconds(10)) == std::future_status::timeout) {
            ADD_FAILURE() << "openDevice waits on " << pipe;
            int fd = open(pipe.c_str(), O_WRONLY | O_NONBLOCK);
            if (fd >= 0) close(fd);
        }
        return result.get();
    };
    EXPECT_EQ(19, openWithin(job + "/Defaultscan.conf"));
    EXPECT_TRUE(pattern(2, 12, 6) == readAll(net));
    EXPECT_EQ(15, openWithin(job + "/Defaultscan.pxm.1"));
    EXPECT_EQ(0, net.getCounter());
    EXPECT_FALSE(exists(job));
}

// An unfinished job's pages go with the transport. No page at all fails the
// job like a broken page. (A failing program: NetSession's NetFailure.)
TEST_F(NetJob, UnfinishedJobGoesWithTheTransportAndNoPageFails) {
    store.SetIntOption("SCANBOTHSIDES", 1);
    put("Defaultscan.pxm", zlibPage(2, 300, 8, 8, pattern(2, 8, 8)));
    {
        NetComm other;
        other.setConfigReader(&store);
        other.setIPAddress("192.0.2.10");
        ASSERT_EQ(19, other.openDevice());
        EXPECT_EQ(1, other.getCounter());
        EXPECT_TRUE(exists(job));
    }
    EXPECT_FALSE(exists(job));
    qt::ScopedEnv none("QUARTO_TEST_PAGES", "");
    store.SetIntOption("SCANBOTHSIDES", 0);
    EXPECT_EQ(15, net.openDevice());
    EXPECT_FALSE(exists(job));
}

// The temporary directory is made for the user alone; one that is a link, is
// writable by others or lies in a directory others may rename things in is
// refused before the program runs, and never removed.
TEST_F(NetJob, TemporaryDirectoryMustBePrivate) {
    put("Defaultscan.pxm", zlibPage(2, 300, 8, 8, pattern(2, 8, 8)));
    put("Defaultscan.conf", "ROTATE=90\n");
    ASSERT_EQ(0, mkdir(dir.file("victim").c_str(), 0700));
    qt::writeFile(dir.file("victim/keep"), "keep");
    // A stale link where the turned page's file goes is replaced, not followed.
    ASSERT_EQ(0, mkdir(job.c_str(), 0700));
    ASSERT_EQ(0, symlink(dir.file("victim/keep").c_str(), (job + "/unrotated.pxm").c_str()));
    ASSERT_EQ(19, net.openDevice());
    EXPECT_EQ("keep", qt::readFile(dir.file("victim/keep")));
    EXPECT_EQ(0, net.closeDevice());
    EXPECT_FALSE(exists(job));
    ASSERT_EQ(0, unlink(dir.file("args").c_str()));

    ASSERT_EQ(0, symlink(dir.file("victim").c_str(), job.c_str()));
    EXPECT_EQ(2, net.openDevice());
    EXPECT_EQ(1, net.closeDevice());
    EXPECT_TRUE(exists(dir.file("victim/keep")));
    ASSERT_EQ(0, unlink(job.c_str()));
    ASSERT_EQ(0, mkdir(job.c_str(), 0700));
    ASSERT_EQ(0, chmod(job.c_str(), 0777));
    EXPECT_EQ(2, net.openDevice());
    ASSERT_EQ(0, rmdir(job.c_str()));
    ASSERT_EQ(0, chmod(dir.path().c_str(), 0777));
    EXPECT_EQ(2, net.openDevice()) << "inside a directory others may write";
    EXPECT_FALSE(exists(job)) << "nothing is made where others may write";
    ASSERT_EQ(0, chmod(dir.path().c_str(), 0700));
    EXPECT_FALSE(ran());
    ASSERT_EQ(19, net.openDevice());
    struct stat st;
    ASSERT_EQ(0, lstat(job.c_str(), &st));
    EXPECT_EQ(0700u, st.st_mode & 07777);
}

// A link above the temporary directory, in a directory everybody may write
// (as /tmp), that belongs to somebody else can be pointed elsewhere by its
// owner at any moment, mid-job too: such a path is refused before anything is
// made or run. The same link of the user's own is followed as any path.
TEST_F(NetJob, LinkOfSomebodyElseAboveTheDirectoryIsRefused) {
    put("Defaultscan.pxm", zlibPage(2, 300, 8, 8, pattern(2, 8, 8)));
    const std::string shared = dir.file("shared"), victim = dir.file("victim");
    ASSERT_EQ(0, mkdir(shared.c_str(), 0700));
    ASSERT_EQ(0, chmod(shared.c_str(), 01777));
    ASSERT_EQ(0, mkdir(victim.c_str(), 0700));
    ASSERT_EQ(0, symlink(victim.c_str(), (shared + "/link").c_str()));
    const uid_t other = geteuid() == 65534 ? 65533 : 65534;
    if (lchown((shared + "/link").c_str(), other, other) != 0) GTEST_SKIP() << "giving a link away needs root";
    store.SetStringOption("TEMPDIRECTORY", (shared + "/link/job").c_str());
    EXPECT_EQ(2, net.openDevice());
    EXPECT_FALSE(ran());
    EXPECT_FALSE(exists(victim + "/job")) << "made through the link";
    EXPECT_EQ(0, net.closeDevice());

    ASSERT_EQ(0, lchown((shared + "/link").c_str(), geteuid(), getegid()));
    ASSERT_EQ(19, net.openDevice());
    EXPECT_TRUE(pattern(2, 8, 8) == readAll(net));
    EXPECT_EQ(0, net.closeDevice());
    EXPECT_FALSE(exists(victim + "/job"));
}
