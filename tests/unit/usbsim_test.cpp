// The simulated scanner on its own, driven through the libusb-0.1 API: what it
// shows on the bus, the bytes of its replies and image stream, and its faults.
#include <gtest/gtest.h>
#include <usb.h>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "testutil.h"
#include "usbsim.h"

namespace {

using Bytes = std::vector<unsigned char>;
constexpr int EP_IN = 0x81;
constexpr int EP_OUT = 0x02;

Bytes hex(const std::string& s) {
    Bytes b;
    for (size_t i = 0; i + 1 < s.size(); i += 2) b.push_back(static_cast<unsigned char>(std::stoi(s.substr(i, 2), nullptr, 16)));
    return b;
}

std::string toHex(const Bytes& b) {
    static const char* d = "0123456789abcdef";
    std::string s;
    for (unsigned char c : b) s += {d[c >> 4], d[c & 15]};
    return s;
}

void putLE(Bytes& b, size_t off, uint32_t v, int n) {
    for (int i = 0; i < n; ++i) b[off + i] = static_cast<unsigned char>(v >> (8 * i));
}

// Scan settings: 326/401/402 send them in START (id 4), 500 in the LOCK record.
struct Win {
    int color;
    uint32_t width, lines, x, y;
    int source = 0;
    int compression = 0;
};

Bytes settingsRequest(unsigned char code, int dataLen, const Win& w) {
    Bytes b(8 + dataLen, 0);
    b[0] = 0x1B, b[1] = 0x53, b[2] = code, b[4] = static_cast<unsigned char>(dataLen), b[6] = 0x80;
    b[8] = static_cast<unsigned char>(w.color);
    b[9] = static_cast<unsigned char>(w.compression);
    b[11] = 3;
    if (dataLen > 24) b[32] = static_cast<unsigned char>(w.source);
    putLE(b, 12, w.width, 4);
    putLE(b, 16, w.lines, 4);
    putLE(b, 20, w.x, 4);
    putLE(b, 24, w.y, 4);
    putLE(b, 28, 300, 2);
    putLE(b, 30, 300, 2);
    return b;
}

const char* const FLATBED = "  source type=1 bar=0 origin=0 width=10200 height=14031\n  res 300 300 0\n  res 600 600 2\n";

class Sim : public ::testing::Test {
protected:
    usb_dev_handle* h = nullptr;

    void TearDown() override {
        if (h) usb_close(h);
        usbsim_reset();
    }

    void load(const std::string& scenario) {
        ASSERT_EQ(usbsim_load_text(scenario.c_str()), 0);
        usb_init();
        usb_find_busses();
        usb_find_devices();
    }

    static struct usb_device* find(const char* bus, const char* file) {
        for (struct usb_bus* b = usb_get_busses(); b; b = b->next)
            for (struct usb_device* d = b->devices; d; d = d->next)
                if (std::string(b->dirname) == bus && std::string(d->filename) == file) return d;
        return nullptr;
    }

    void openClaim(const char* bus, const char* file) {
        struct usb_device* d = find(bus, file);
        ASSERT_NE(d, nullptr);
        h = usb_open(d);
        ASSERT_NE(h, nullptr);
        ASSERT_EQ(usb_claim_interface(h, 0), 0);
    }

    void device(int version, const std::string& extra = "") {
        load("device 001 004 vid=0x2F4A pid=0x0500\n  version " + std::to_string(version) + "\n  feeder 2\n" + extra);
        openClaim("001", "004");
    }

    int send(const Bytes& b) {
        return usb_bulk_write(h, EP_OUT, reinterpret_cast<const char*>(b.data()), static_cast<int>(b.size()), 1000);
    }

    // Every transfer queued, one bulk read each, until a read fails (with
    // *end, when given, set to its result).
    std::vector<Bytes> drain(int cap = 65536, int* end = nullptr) {
        std::vector<Bytes> out;
        Bytes buf(static_cast<size_t>(cap));
        int n;
        while ((n = usb_bulk_read(h, EP_IN, reinterpret_cast<char*>(buf.data()), cap, 1000)) >= 0)
            out.emplace_back(buf.begin(), buf.begin() + n);
        if (end != nullptr) *end = n;
        return out;
    }

    // Starts a scan of window w the way the given command version does.
    std::vector<Bytes> scan(int version, const Win& w) {
        if (version == 500) {
            EXPECT_EQ(send(settingsRequest(0x05, 47, w)), 55);
            EXPECT_EQ(drain().size(), 1u);  // the lock reply
            EXPECT_EQ(send(hex("1b53010000008000")), 8);
        } else {
            EXPECT_EQ(send(settingsRequest(0x01, version == 326 ? 24 : 26, w)), version == 326 ? 32 : 34);
        }
        return drain();
    }
};

// ------------------------------------------------------------------ the bus

// Identifiers, classes and string indices are exercised through the transport's
// enumeration; here the descriptor shapes and the string transfers themselves.
TEST_F(Sim, DescriptorsAndStrings) {
    load("device 001 004 vid=0x2F4A pid=0x0500 class=0\n"
         "  interface class=7 alts=2 ep=0x81,0x02,0x83\n"
         "  manufacturer Tarvesk International\n  product Quarto 5100\n");
    struct usb_device* a = find("001", "004");
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->bus->location, 1u);
    const struct usb_interface& itf = a->config->interface[0];
    ASSERT_EQ(itf.num_altsetting, 2);
    EXPECT_EQ(itf.altsetting[1].bInterfaceClass, 7);
    ASSERT_EQ(itf.altsetting[0].bNumEndpoints, 3);
    EXPECT_EQ(itf.altsetting[0].endpoint[2].bEndpointAddress, 0x83);
    h = usb_open(a);
    char s[100];
    ASSERT_EQ(usb_get_string_simple(h, a->descriptor.iManufacturer, s, sizeof s), 21);
    EXPECT_STREQ(s, "Tarvesk International");
    ASSERT_EQ(usb_get_string_simple(h, a->descriptor.iProduct, s, 7), 6);  // cut to the buffer
    EXPECT_STREQ(s, "Quarto");
    char raw[8];
    ASSERT_EQ(usb_get_string(h, a->descriptor.iProduct, 0x409, raw, sizeof raw), 8);
    EXPECT_EQ(toHex(Bytes(raw, raw + 8)), "1803510075006100");
}

TEST_F(Sim, ReadWithNothingQueuedTimesOutAtOnceAndDoubleCloseIsRefused) {
    device(500);
    char buf[64];
    EXPECT_EQ(usb_bulk_read(h, EP_IN, buf, sizeof buf, 75000), -ETIMEDOUT);
    EXPECT_EQ(usb_close(h), 0);
    EXPECT_EQ(usb_close(h), -EINVAL);
    h = nullptr;
}

// ------------------------------------------------------------------ replies

struct ReplyCase {
    const char* name;
    std::string request;
    std::vector<std::string> replies;
    int version = 500;  // 326: properties of major version 4, without the extension bytes
};

class Replies : public Sim, public ::testing::WithParamInterface<ReplyCase> {};

TEST_P(Replies, AnswerEachRequestWithItsHeaderAndBlock) {
    const std::string props = GetParam().version == 326
                                  ? "  props major=4 minor=1 codeset=2 compression=1 align_color=4 align_gray=8 support=0xff\n"
                                  : "  props major=5 minor=1 codeset=2 compression=1 align_color=4 align_gray=8 support=0x87 "
                                    "types=0x1F duplex=1\n";
    device(GetParam().version, "  lock_status 0x83\n  start_status 0x88\n" + props + FLATBED +
                                   "  size 8500 11000 Letter\n  size 8268 11693 A4\n  scan_params 12 00 00 02 0e\n");
    ASSERT_EQ(send(hex(GetParam().request)), static_cast<int>(GetParam().request.size() / 2));
    std::vector<Bytes> got = drain();
    ASSERT_EQ(got.size(), GetParam().replies.size());
    for (size_t i = 0; i < got.size(); ++i) EXPECT_EQ(toHex(got[i]), GetParam().replies[i]);
}

INSTANTIATE_TEST_SUITE_P(
    Requests, Replies,
    ::testing::Values(
        ReplyCase{"status", "1b53040000008000", {"1b53040000008002"}},
        ReplyCase{"wake", "1b44040000008000", {"1b44040000008002"}},
        ReplyCase{"unlock", "1b53060000008000", {"1b53060000008002"}},
        ReplyCase{"data", "1b53020000000000", {"1b53020000008002"}},
        ReplyCase{"start_without_lock", "1b53010000008000", {"1b53010000008102"}},
        ReplyCase{"lock", "1b53052f00008000" + std::string(94, '0'), {"1b53050000008302"}},
        ReplyCase{"cancel", "1b530f0000000000", {}},
        ReplyCase{"unknown", "1b53770000008000", {}},
        ReplyCase{"too_short", "1b5304", {}},
        ReplyCase{"scan_params", "1b530b0000008000",
                  {"1b530b0022008002" "120000020e" + std::string(58, '0')}},
        ReplyCase{"properties", "1b53030000008000",
                  {"1b5303002f008002"
                   "050102010408870000011f00" "01"
                   "010000000000d8270000cf36000002" "2c0100002c01000000" "580200005802000002" "00"}},
        ReplyCase{"sizes", "1b530a0000008000",
                  {"1b530a001700800202" "0600" "4c6574746572" "3421" "f82a" "00" "0200" "4134" "4c20" "ad2d" "00"}},
        ReplyCase{"properties_major_4", "1b53030000008000",
                  {"1b53030028008002" "040102010408" "01"
                   "010000000000d8270000cf36000002" "2c0100002c01000000" "580200005802000002"},
                  326}),
    [](const ::testing::TestParamInfo<ReplyCase>& i) { return std::string(i.param.name); });

TEST_F(Sim, NpaPacketsAreUnwrappedAndBareRequestsIgnored) {
    device(401, "  npa on\n");
    // A 10-byte command in a 32-byte packet with 2 bytes of padding.
    EXPECT_EQ(send(hex("a5001d100183aabbccdd0202" "0000" "1b530400020080000000" "aabbccddaabbccdd")), 32);
    std::vector<Bytes> got = drain();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(toHex(got[0]), "1b53040000008002");
    send(hex("1b53040000008000"));
    EXPECT_TRUE(drain().empty());
    EXPECT_NE(std::string(usbsim_events()).find("npa dev=0 malformed packet"), std::string::npos);
}

// ------------------------------------------------------------------ scans

struct StreamCase {
    int version;
    int strip;
    std::string fullHeader;  // header of a 300-byte block
    std::string lastHeader;  // header of the closing 50-byte block
};

class Stream : public Sim, public ::testing::WithParamInterface<StreamCase> {};

TEST_P(Stream, GreyPageInFramedBlocksThenCompletionRecord) {
    const StreamCase& c = GetParam();
    device(c.version, "  block 300\n");
    std::vector<Bytes> got = scan(c.version, Win{2, 50, 13, 10, 20});
    ASSERT_EQ(got.size(), 5u);
    EXPECT_EQ(toHex(got[0]), "1b53010000008002");
    EXPECT_EQ(toHex(Bytes(got[1].begin(), got[1].begin() + c.strip)), c.fullHeader);
    EXPECT_EQ(toHex(Bytes(got[3].begin(), got[3].begin() + c.strip)), c.lastHeader);
    EXPECT_EQ(toHex(got[4]), "1b530200020000000100");
    EXPECT_EQ(got[1][c.strip], 50);  // (x + 2y) at x 10, y 20
    EXPECT_EQ(got[1].size() + got[2].size() + got[3].size(), 650u + 3 * c.strip);
    usbsim_window w;
    ASSERT_EQ(usbsim_last_window(0, &w), 0);
    EXPECT_EQ(w.request, c.version == 500 ? 3 : 4);
    EXPECT_EQ(w.source, c.version == 326 ? -1 : 0);
    EXPECT_EQ(w.width, 50u);
    EXPECT_EQ(w.offset_y, 20u);
    EXPECT_EQ(w.xres, 300);
}

INSTANTIATE_TEST_SUITE_P(
    Versions, Stream,
    ::testing::Values(StreamCase{326, 9, "1b5302002d01000000", "1b53020033000000" "00"},
                      StreamCase{401, 10, "1b5302002e0100000000", "1b530200340000000000"},
                      StreamCase{402, 10, "1b530200430100000000", "1b530200490000000000"},
                      StreamCase{500, 31, "1b53020043010000" + std::string(46, '0'),
                                 "1b53020049000000" + std::string(46, '0')}),
    [](const ::testing::TestParamInfo<StreamCase>& i) { return std::to_string(i.param.version); });

TEST_F(Sim, ReadsReturnAtMostTheRestOfOneTransfer) {
    device(500, "  block 20000\n");
    send(settingsRequest(0x05, 47, Win{3, 100, 100, 0, 0}));  // 30000 image bytes
    send(hex("1b53010000008000"));
    std::vector<size_t> sizes;
    for (const Bytes& b : drain(8192)) sizes.push_back(b.size());
    EXPECT_EQ(sizes, (std::vector<size_t>{8, 8, 8192, 8192, 3647, 8192, 1839, 10}));
}

TEST_F(Sim, ColourInBgrOrderAndLineArtBits) {
    device(500, "  bgr on\n");
    std::vector<Bytes> got = scan(500, Win{3, 4, 1, 254, 1});
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(toHex(Bytes(got[1].begin() + 31, got[1].end())), "ff01fe" "0001ff" "010100" "020101");
    got = scan(500, Win{1, 16, 9, 4, 0});
    ASSERT_EQ(got.size(), 3u);
    Bytes bits(got[1].begin() + 31, got[1].end());
    ASSERT_EQ(bits.size(), 18u);
    EXPECT_EQ(toHex(Bytes(bits.begin(), bits.begin() + 2)), "0ff0");
    EXPECT_EQ(toHex(Bytes(bits.end() - 2, bits.end())), "f00f");  // row 8 is the next band
}

TEST_F(Sim, InterleavedLinesFollowTheirRecord) {
    device(402, "  interleave 2 1\n");
    std::vector<Bytes> got = scan(402, Win{2, 5, 1, 0, 0});
    ASSERT_EQ(got.size(), 4u);
    EXPECT_EQ(toHex(got[1]), "1b530200170000000900" "01" "0a000000" "01000000" "02000000" "00000000" "01000000");
    EXPECT_EQ(toHex(Bytes(got[2].begin() + 10, got[2].end())), "eeee000204" "eeee0103ee");
}

// Page p is the formula at X + 64 (p - 1): grey x + 2y from 0, then from 64.
TEST_F(Sim, PagesAreSeparatedByPageEndRecordsAndShiftedBy64Columns) {
    device(500, "  pages 2\n");
    std::vector<Bytes> got = scan(500, Win{2, 4, 2, 0, 0});
    ASSERT_EQ(got.size(), 5u);
    EXPECT_EQ(toHex(Bytes(got[1].begin() + 31, got[1].end())), "00010203" "02030405");
    EXPECT_EQ(toHex(got[2]), "1b530200020000000700");
    EXPECT_EQ(toHex(Bytes(got[3].begin() + 31, got[3].end())), "40414243" "42434445");
    EXPECT_EQ(toHex(got[4]), "1b530200020000000100");
}

TEST_F(Sim, CancelDropsTheRestOfTheScan) {
    device(500);
    send(settingsRequest(0x05, 47, Win{3, 1000, 1000, 0, 0}));
    send(hex("1b53010000008000"));
    char buf[8192];
    ASSERT_EQ(usb_bulk_read(h, EP_IN, buf, sizeof buf, 1000), 8);  // lock reply
    ASSERT_EQ(usb_bulk_read(h, EP_IN, buf, sizeof buf, 1000), 8);  // start reply
    ASSERT_EQ(usb_bulk_read(h, EP_IN, buf, sizeof buf, 1000), 8192);
    send(hex("1b530f0000000000"));
    EXPECT_EQ(usbsim_queued(0), 0);
    EXPECT_EQ(usb_bulk_read(h, EP_IN, buf, sizeof buf, 1000), -ETIMEDOUT);
}

// ------------------------------------------------------------------ faults

struct EndCase {
    const char* fault;
    const char* record;  // nullptr: the stream just stops
    int end;             // the read after the last transfer
};

class PageEnd : public Sim, public ::testing::WithParamInterface<EndCase> {};

// A record after the given lines ends the page; a stall or an unplug ends the
// stream without one: the next read times out, or finds the device gone.
TEST_P(PageEnd, AfterTheGivenLines) {
    device(326, std::string("  block 25\n  fault ") + GetParam().fault + " 3\n");
    send(settingsRequest(0x01, 24, Win{2, 10, 8, 0, 0}));
    int end = 0;
    std::vector<Bytes> got = drain(65536, &end);
    ASSERT_EQ(got.size(), GetParam().record ? 4u : 3u);
    EXPECT_EQ(got[1].size(), 9u + 25u);
    EXPECT_EQ(got[2].size(), 9u + 5u);  // the block stops at the end of line 3
    if (GetParam().record) {
        EXPECT_EQ(toHex(got[3]), GetParam().record);
    }
    EXPECT_EQ(end, GetParam().end);
}

INSTANTIATE_TEST_SUITE_P(Faults, PageEnd,
                         ::testing::Values(EndCase{"abort", "1b530200020000000300", -ETIMEDOUT},
                                           EndCase{"device_abort", "1b530200020000000400", -ETIMEDOUT},
                                           EndCase{"jam", "1b530200020000000500", -ETIMEDOUT},
                                           EndCase{"oom", "1b530200020000000200", -ETIMEDOUT},
                                           EndCase{"comm_error", "1b530200020000000600", -ETIMEDOUT},
                                           EndCase{"bad_status", "1b530200020000005a00", -ETIMEDOUT},
                                           EndCase{"not_record", "1b53040000008000", -ETIMEDOUT},
                                           EndCase{"stall", nullptr, -ETIMEDOUT},
                                           EndCase{"unplug_lines", nullptr, -ENODEV}),
                         [](const ::testing::TestParamInfo<EndCase>& i) { return std::string(i.param.fault); });

TEST_F(Sim, UnplugEndsTheHandleAndTheListingOnTheNextScan) {
    device(500, "  fault unplug 2\n");
    const Bytes status = hex("1b53040000008000");
    EXPECT_EQ(send(status), 8);
    EXPECT_EQ(send(status), 8);  // the second write is the last the device takes
    EXPECT_EQ(send(status), -ENODEV);
    char buf[16];
    EXPECT_EQ(usb_bulk_read(h, EP_IN, buf, sizeof buf, 100), -ENODEV);
    EXPECT_NE(find("001", "004"), nullptr);  // still listed until the next scan of the bus
    usb_find_devices();
    EXPECT_EQ(find("001", "004"), nullptr);
    ASSERT_EQ(usbsim_replug(0, "002", "011"), 0);
    EXPECT_EQ(send(status), -ENODEV);  // the old handle stays dead
}

// ------------------------------------------------------------------ feeder

// Job messages: 1B 53 02 00 <n LE16> 00 00 <status> 00 <payload>, n = 2 +
// payload; page p at X + 64 (p - 1); byte 7 of replies 2 while sheets remain.
TEST_F(Sim, JobTakesEverySheetInFramedMessages) {
    device(500, "  sheets 2\n  block 5\n");
    std::vector<Bytes> got = scan(500, Win{2, 4, 2, 0, 0, 3});
    std::vector<std::string> hexes;
    for (const Bytes& b : got) hexes.push_back(toHex(b));
    EXPECT_EQ(hexes, (std::vector<std::string>{
                         "1b53010000008002", "1b530200020000000800",                              // START, job start
                         "1b530200020000000900", "1b530200070000000000" "0001020302",             // page 1
                         "1b530200050000000000" "030405", "1b530200020000000700",
                         "1b530200020000000900", "1b530200070000000000" "4041424342",             // page 2
                         "1b530200050000000000" "434445", "1b530200020000000700",
                         "1b530200020000000100"}));
    EXPECT_EQ(usbsim_feeder_sheets(0), 0);
    send(hex("1b53040000008000"));
    EXPECT_EQ(toHex(drain().at(0)), "1b53040000008001");  // empty now
    got = scan(500, Win{2, 4, 2, 0, 0, 3});
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(toHex(got[0]), "1b53010000008101");  // refused, feeder empty
}

// A job stopped after page 1 leaves the sheets it did not reach, the flatbed
// draws none, and a reloaded feeder starts again at page 1. (Single-page
// scans taking one sheet each are checked through the front end.)
TEST_F(Sim, SheetsLeftByAStoppedJobAndAReloadedFeeder) {
    device(500, "  sheets 3\n  multipage on\n  fault jam 2\n");
    std::vector<Bytes> got = scan(500, Win{2, 4, 2, 0, 0, 4});
    ASSERT_EQ(got.size(), 6u);  // START, job start, page start, fragment, page end, jam
    EXPECT_EQ(toHex(got[3]), "1b5302000a0000000000" "0001020302030405");
    EXPECT_EQ(toHex(got[4]), "1b530200020000000700");
    EXPECT_EQ(toHex(got[5]), "1b530200020000000500");
    EXPECT_EQ(usbsim_feeder_sheets(0), 2);
    scan(500, Win{2, 4, 1, 0, 0, 1});
    EXPECT_EQ(usbsim_feeder_sheets(0), 2);
    ASSERT_EQ(usbsim_set_fault(0, "jam", -1), 0);
    ASSERT_EQ(usbsim_load_feeder(0, 1), 0);
    got = scan(500, Win{2, 4, 1, 0, 0, 4});
    ASSERT_EQ(got.size(), 6u);  // START, job start, page start, fragment, page end, completion
    EXPECT_EQ(toHex(got[3]), "1b530200060000000000" "00010203");
    EXPECT_EQ(usbsim_feeder_sheets(0), 0);
}

// Compressed: band bytes go in plain transfers, exactly the bytes of the band
// file; each band a big-endian header of size, lines, width and quality.
TEST_F(Sim, CompressedScanSendsTheBandsOfTheBandFile) {
    qt::TempDir dir;
    ASSERT_EQ(usbsim_set_band_file(dir.file("bands").c_str()), 0);
    device(500, "  wicket quality=90 band=8\n  block 700\n");
    std::vector<Bytes> got = scan(500, Win{3, 40, 20, 5, 7, 1, 1});
    usbsim_set_band_file(nullptr);
    ASSERT_GE(got.size(), 3u);
    EXPECT_EQ(toHex(got.back()), "1b530200020000000100");
    Bytes sent;
    for (size_t i = 1; i + 1 < got.size(); ++i) {
        EXPECT_LE(got[i].size(), 700u);
        sent.insert(sent.end(), got[i].begin(), got[i].end());
    }
    const std::string file = qt::readFile(dir.file("bands"));
    EXPECT_EQ(toHex(sent), toHex(Bytes(file.begin(), file.end())));
    std::vector<std::string> headers;
    for (size_t pos = 0; pos + 16 <= sent.size();) {
        headers.push_back(toHex(Bytes(sent.begin() + (long)pos + 4, sent.begin() + (long)pos + 16)));
        pos += (size_t)sent[pos] << 24 | (size_t)sent[pos + 1] << 16 | (size_t)sent[pos + 2] << 8 | sent[pos + 3];
    }
    EXPECT_EQ(headers, (std::vector<std::string>{"00000008" "00000028" "0000005a", "00000008" "00000028" "0000005a",
                                                 "00000004" "00000028" "0000005a"}));
}

// ------------------------------------------------------------------ records

TEST_F(Sim, RecordsWritesInOrderAndAppendsTheLogFile) {
    qt::TempDir dir;
    const std::string log = dir.file("sim.log");
    const std::string target = dir.file("target");
    qt::writeFile(target, "keep\n");
    ASSERT_EQ(symlink(target.c_str(), dir.file("link").c_str()), 0);
    {
        qt::ScopedEnv env("QUARTO_USBSIM_LOG", dir.file("link").c_str());
        device(326);  // the log is a symbolic link: not followed
        send(hex("1b53040000008000"));
        usb_close(h);
        h = nullptr;
    }
    EXPECT_EQ(qt::readFile(target), "keep\n");
    usbsim_reset();
    {
        qt::ScopedEnv env("QUARTO_USBSIM_LOG", log.c_str());
        device(326);
        send(hex("1b53040000008000"));
        scan(326, Win{3, 8, 2, 1, 2});
    }
    ASSERT_EQ(usbsim_write_count(0), 2);
    unsigned char buf[64];
    EXPECT_EQ(usbsim_get_write(0, 1, buf, sizeof buf), 32);
    EXPECT_EQ(toHex(Bytes(buf, buf + 8)), "1b53010018008000");
    EXPECT_EQ(usbsim_write_endpoint(0, 1), EP_OUT);
    EXPECT_EQ(usbsim_get_write(0, 2, buf, sizeof buf), -1);
    const std::string file = qt::readFile(log);
    for (const char* line : {"open dev=0 bus=001 file=004\n", "claim dev=0 iface=0 rc=0\n",
                             "write dev=0 ep=0x02 len=8 data=1b53040000008000\n",
                             "window dev=0 color=3 width=8 lines=2 x=1 y=2 xres=300 yres=300"})
        EXPECT_NE(file.find(line), std::string::npos) << line;
    EXPECT_EQ(file, usbsim_events());
}

TEST_F(Sim, RefusesWindowsItCannotScan) {
    device(402);
    std::vector<Bytes> got = scan(402, Win{7, 10, 10, 0, 0});
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(toHex(got[0]), "1b53010000008102");
    got = scan(402, Win{3, 0xFFFFFFFF, 10, 0, 0});
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0][6], 0x81);
}

// ------------------------------------------------------------------ scenarios

class BadLine : public ::testing::TestWithParam<std::string> {
protected:
    void TearDown() override { usbsim_reset(); }
};

TEST_P(BadLine, IsReportedAndTheRestLoads) {
    const std::string text = std::string("device 001 004 vid=1 pid=2\n") + GetParam() + "\n  feeder 2\n";
    qt::StderrCapture err;
    EXPECT_EQ(usbsim_load_text(text.c_str()), 1);
    EXPECT_NE(err.finish().find("line 2: "), std::string::npos);
    EXPECT_EQ(usbsim_device_count(), 1);
    usb_init();
    usb_find_busses();
    usb_find_devices();
    ASSERT_NE(usb_get_busses(), nullptr);
    ASSERT_NE(usb_get_busses()->devices, nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, BadLine,
    ::testing::ValuesIn(std::vector<std::string>{"frobnicate 1", "  res 300 300 0", "device 001", "device 001 005 vid=0x10000",
                      "device 001 005 color=3", "  interface class=256", "  interface ep=0x81,zz",
                      "  fault busy 9", "  fault nosuch 1", "  scan_params 1", "  scan_params " + std::string(70, '0'),
                      "  size 70000 1 Huge", "  string 0 Zero", "  version 327", "  block 0", "  interleave -1 0",
                      "  manufacturer " + std::string(127, 'x'), "  props major=300", "  props_raw 0g",
                      "  source width=4294967296", "  replug_after 1 001", std::string(5000, 'k')}));

TEST(SimFiles, ShippedScenariosLoadCleanly) {
    for (const char* f : {"sim/scenarios/demo.scn", "tests/data/sim_326.scn", "tests/data/sim_401.scn",
                          "tests/data/sim_402.scn", "tests/data/sim_500.scn", "tests/data/sim_unknown.scn"}) {
        const std::string path = qt::sourceDir() + "/" + f;
        EXPECT_EQ(usbsim_load_file(path.c_str()), 0) << f;
        EXPECT_GE(usbsim_device_count(), 1) << f;
    }
    EXPECT_EQ(usbsim_load_file("/nonexistent/scenario.scn"), -1);
    usbsim_reset();
}

}  // namespace
