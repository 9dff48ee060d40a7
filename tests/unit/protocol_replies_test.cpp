// Reply classification and parsing of the properties and scan sizes blocks,
// including blocks cut short. Messages are written out as hex literals.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "CProps.h"
#include "CResponse.h"
#include "CScanRes.h"
#include "CSources.h"
#include "protocol_testutil.h"

using proto::Bytes;
using proto::hex;

namespace {

// Properties reply, major version 4: two sources (2 and 1 resolutions).
const char* const PROPS_V4 =
    "1B 53 03 00 40 00 00 00 |"
    "04 01 02 03 04 05 | 02 |"
    "01 02 10 00 00 00 D8 27 00 00 D8 36 00 00 02 | 2C 01 00 00 2C 01 00 00 02 | 58 02 00 00 2C 01 00 00 03 |"
    "02 03 00 00 00 00 00 00 00 01 01 00 00 00 01 | 58 02 00 00 58 02 00 00 01";

// Properties reply, major version 5: extension fields, two sources, each
// followed by one skipped byte (EE).
const char* const PROPS_V5 =
    "1B 53 03 00 48 00 06 01 |"
    "05 00 07 01 03 03 | FF 00 00 01 FF 00 | 02 |"
    "01 00 00 00 00 00 D8 27 00 00 D8 36 00 00 01 | 2C 01 00 00 2C 01 00 00 02 | EE |"
    "03 01 05 00 00 00 00 00 00 01 80 3E 00 00 02 | 96 00 00 00 96 00 00 00 01 | B0 04 00 00 58 02 00 00 03 | EE";

// Scan sizes reply: "Card" 3.5 x 2.0 and "Photo" 6.0 x 4.2 inches.
const char* const SIZES =
    "1B 53 0A 00 18 00 00 00 |"
    "02 | 04 00 43 61 72 64 AC 0D D0 07 00 | 05 00 50 68 6F 74 6F 70 17 68 10 00";

// Fields of a resolution record and of a source record, as read back.
void expectResolution(CSources* src, int index, int hor, int ver, int depth) {
    CScanRes* res = src->getScanRes(index);
    ASSERT_NE(res, nullptr);
    int h = -7, v = -7;
    EXPECT_EQ(res->getHorRes(&h) + res->getVerRes(&v), 0);
    EXPECT_EQ(h, hor);
    EXPECT_EQ(v, ver);
    EXPECT_EQ(res->getColorDepth(), depth);
    EXPECT_EQ(res->isEqual(), hor == ver ? 1 : 0);
}

void expectSource(CSources* src, std::vector<int> fields) {  // type bar org width height duplex N
    ASSERT_NE(src, nullptr);
    int org = -7, width = -7, height = -7;
    EXPECT_EQ(src->getOrgOffset(&org) + src->getWidth(&width) + src->getHeight(&height), 0);
    EXPECT_EQ(std::vector<int>({src->getType(), src->getBarId(), org, width, height, src->getDuplexSupport(),
                                src->getNumOfRes()}),
              fields);
    EXPECT_EQ(src->getSize(), 15 + 9 * fields[6]);
    EXPECT_EQ(src->getScanRes(fields[6]), nullptr);
}

struct ReplyCase {
    const char* msg;
    int reply, status, adf, record, flipped;
};
class ReplyHeader : public ::testing::TestWithParam<ReplyCase> {};

TEST_P(ReplyHeader, KindStatusFeederRecordFlip) {
    const ReplyCase& c = GetParam();
    Bytes m = hex(c.msg);
    CResponse r;
    ASSERT_EQ(r.setHeader(m.data(), (int)m.size()), 0);
    EXPECT_EQ(r.getReply(), c.reply);
    EXPECT_EQ(r.getStatus(), c.status);
    EXPECT_EQ(r.getADFStatus(), c.adf);
    EXPECT_EQ(r.getRecordResponse(), c.record);
    EXPECT_EQ(r.isFlipped(), c.flipped);
}

INSTANTIATE_TEST_SUITE_P(
    Messages, ReplyHeader,
    ::testing::Values(ReplyCase{"1B 53 01 00 00 00 00 00", 4, 0, 0, -1, 0},
                      ReplyCase{"1B 53 02 00 00 00 00 01 09 00 01", 7, 0, 1, 9, 0},
                      ReplyCase{"1B 53 03 00 00 00 00 00", 2, 0, 0, -1, 0},
                      ReplyCase{"1B 53 04 00 00 00 05 02 07 01", 1, 5, 2, 7, 1},
                      ReplyCase{"1B 53 05 00 00 00 00 00", 3, 0, 0, -1, 0},
                      ReplyCase{"1B 53 06 00 00 00 08 00", 5, 8, 0, -1, 0},
                      ReplyCase{"1B 53 07 00 00 00 00 00", 0, 0, 0, -1, 0},
                      ReplyCase{"1B 53 0A 00 00 00 00 00", 9, 0, 0, -1, 0},
                      ReplyCase{"1B 53 0B 00 22 00 00 00", 8, 0, 0, -1, 0},
                      ReplyCase{"1B 44 04 00 00 00 03 02 01", 6, -1, 2, 1, 0},
                      ReplyCase{"1B 44 03 00 00 00 00 00", 0, -1, 0, -1, 0},
                      ReplyCase{"1C 53 04 00 00 00 01 01 01 01", 0, -1, 1, 1, 1},
                      // Six bytes: accepted, but bytes 6 and up are absent.
                      ReplyCase{"1B 53 04 00 00 00", 1, -1, -1, -1, 0}));

TEST(Response, RefusesShortOrNullAndKeepsPrevious) {
    CResponse r;
    int size = 0;
    EXPECT_EQ(r.getData(&size), nullptr);
    EXPECT_EQ(size, -1);
    EXPECT_EQ(r.getADFStatus(), -1);
    EXPECT_EQ(r.getStatus(), -1);
    EXPECT_EQ(r.getRecordResponse(), -1);
    EXPECT_EQ(r.isFlipped(), 0);
    EXPECT_EQ(r.getReply(), 0);
    EXPECT_EQ(r.getProperties(), nullptr);

    Bytes first = hex("1B 53 04 00 00 00 05 02");
    Bytes shortMsg = hex("1B 53 06 00 00");
    ASSERT_EQ(r.setHeader(first.data(), 8), 0);
    EXPECT_EQ(r.setHeader(shortMsg.data(), 5), 3);
    EXPECT_EQ(r.setHeader(nullptr, 8), 2);
    unsigned char* held = r.getData(&size);
    ASSERT_EQ(size, 8);
    EXPECT_EQ(Bytes(held, held + size), first);
    EXPECT_EQ(r.getReply(), 1);
}

TEST(Properties, MajorVersion4) {
    Bytes m = hex(PROPS_V4);
    CResponse r;
    ASSERT_EQ(r.setHeader(m.data(), (int)m.size()), 0);
    EXPECT_EQ(r.getReply(), 2);
    EXPECT_EQ(r.getRecordResponse(), 4);  // the first block byte
    CProps* p = r.getProperties();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(std::vector<int>({p->getMajor(), p->getMinor(), p->getCodeset(), p->getCompression(),
                                p->getAlignmentClr(), p->getAlignmentGry(), p->getNumOfSources()}),
              std::vector<int>({4, 1, 2, 3, 4, 5, 2}));
    // Before major 5 there are no support fields.
    EXPECT_EQ(std::vector<int>({p->ImageProcessingSupport(), p->OriginalDocumentSupport(),
                                p->isMirrorImageModificationSupported(), p->isColorBalanceSupported()}),
              std::vector<int>({-1, -1, 0, 0}));
    // Byte 9 is read whatever the version: here a byte of the first record.
    EXPECT_EQ(p->isDuplexSupported(), 1);
    expectSource(p->getSource(0), {1, 2, 0x10, 10200, 14040, 0, 2});
    expectResolution(p->getSource(0), 0, 300, 300, 2);
    expectResolution(p->getSource(0), 1, 600, 300, 3);
    expectSource(p->getSource(1), {2, 3, 0, 0x01000000, 1, 1, 1});
    expectResolution(p->getSource(1), 0, 600, 600, 1);
    EXPECT_EQ(p->getSource(2), nullptr);
    EXPECT_EQ(p->getSource(-1), nullptr);
}

TEST(Properties, MajorVersion5SkipsOneByteAfterEachRecord) {
    Bytes m = hex(PROPS_V5);
    CResponse r;
    ASSERT_EQ(r.setHeader(m.data(), (int)m.size()), 0);
    EXPECT_EQ(r.getStatus(), 6);
    EXPECT_EQ(r.getADFStatus(), 1);
    CProps* p = r.getProperties();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(std::vector<int>({p->getMajor(), p->getCodeset(), p->getNumOfSources(), p->ImageProcessingSupport(),
                                p->OriginalDocumentSupport(), p->isDuplexSupported()}),
              std::vector<int>({5, 7, 2, 0xFF, 0xFF, 1}));
    expectSource(p->getSource(0), {1, 0, 0, 10200, 14040, 0, 1});
    expectResolution(p->getSource(0), 0, 300, 300, 2);
    // Width 0x01000000: its top byte doubles as the duplex flag.
    expectSource(p->getSource(1), {3, 1, 5, 0x01000000, 16000, 1, 2});
    expectResolution(p->getSource(1), 0, 150, 150, 1);
    expectResolution(p->getSource(1), 1, 1200, 600, 3);
}

struct SupportCase {
    const char* bits;  // byte 6
    int mirror, negative, dropout, descreen, temperature, saturation, balance;
};
class SupportBits : public ::testing::TestWithParam<SupportCase> {};

TEST_P(SupportBits, LowBitsReportedHighQueriesAlwaysZero) {
    const SupportCase& c = GetParam();
    Bytes block = hex(std::string("05 00 00 00 00 00 ") + c.bits + " 00 00 00 00 00 00");
    CProps p;
    ASSERT_EQ(p.setData(block.data(), (int)block.size()), 0);
    EXPECT_EQ(p.isMirrorImageModificationSupported(), c.mirror);
    EXPECT_EQ(p.isNegativeImageModificationSupported(), c.negative);
    EXPECT_EQ(p.isColorDropoutSupported(), c.dropout);
    EXPECT_EQ(p.isDescreenSupported(), c.descreen);
    EXPECT_EQ(p.isTemperatureSupported(), c.temperature);
    EXPECT_EQ(p.isColorSaturationSupported(), c.saturation);
    EXPECT_EQ(p.isColorBalanceSupported(), c.balance);
    // Bits above the one-byte field are never set.
    EXPECT_EQ(std::vector<int>({p.isBackgroundRemovalSupported(), p.isPSSDBrightnessSupported(),
                                p.isPSSDContrastSupported(), p.isISDBrightnessSupported(), p.isISDContrastSupported(),
                                p.isDuplexSupported(), p.getNumOfSources()}),
              std::vector<int>(7, 0));
}

INSTANTIATE_TEST_SUITE_P(Bytes6, SupportBits,
                         ::testing::Values(SupportCase{"55", 1, 0, 1, 1, 0, 1, 0}, SupportCase{"AA", 0, 1, 0, 0, 1, 0, 1}));

TEST(Properties, DocumentTypesFillTheSharedListUpToItsCapacity) {
    ClearSupportedOriginalTypes();
    Bytes all = hex("05 00 00 00 00 00 00 00 00 00 FF 00 00");
    CProps p;
    ASSERT_EQ(p.setData(all.data(), (int)all.size()), 0);
    p.GetSupportedOriginalTypes();
    const char* expected[8] = {"Auto/Other", "Black and White Laser", "Color Laser", "Inkjet Plain",
                               "Photo",      "Magazine",              "Newspaper",   "Press"};
    for (int i = 0; i < 8; ++i) {
        ASSERT_NE(pssd_usb_doc_source_list[i], nullptr) << i;
        EXPECT_STREQ(pssd_usb_doc_source_list[i], expected[i]);
    }
    EXPECT_EQ(pssd_usb_doc_source_list[8], nullptr);
    // A second call appends from the first free slot; names beyond nine are dropped.
    Bytes two = hex("05 00 00 00 00 00 00 00 00 00 0A 00 00");
    CProps q;
    q.setData(two.data(), (int)two.size());
    q.GetSupportedOriginalTypes();
    ASSERT_NE(pssd_usb_doc_source_list[8], nullptr);
    EXPECT_STREQ(pssd_usb_doc_source_list[8], "Black and White Laser");
    EXPECT_EQ(pssd_usb_doc_source_list[9], nullptr);
    ClearSupportedOriginalTypes();
    for (int i = 0; i <= PSSD_USB_DOC_SOURCE_LIST_SIZE; ++i) EXPECT_EQ(pssd_usb_doc_source_list[i], nullptr);
    // A block too short for the mask adds nothing.
    CProps shortBlock;
    shortBlock.setData(all.data(), 10);
    shortBlock.GetSupportedOriginalTypes();
    EXPECT_EQ(pssd_usb_doc_source_list[0], nullptr);
}

struct CutCase {
    int held;  // block bytes actually present
    int sources;
    int numOfSources;
    int major;
};
class TruncatedProperties : public ::testing::TestWithParam<CutCase> {};

// The header still announces 0x48 bytes; only `held` of them arrive.
TEST_P(TruncatedProperties, RecordsThatDoNotFitAreAbsent) {
    const CutCase& c = GetParam();
    Bytes m = hex(PROPS_V5);
    m.resize(8 + (size_t)c.held);
    CResponse r;
    ASSERT_EQ(r.setHeader(m.data(), (int)m.size()), 0);
    CProps* p = r.getProperties();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->getMajor(), c.major);
    EXPECT_EQ(p->getNumOfSources(), c.numOfSources);
    for (int i = 0; i < c.sources; ++i) EXPECT_NE(p->getSource(i), nullptr) << i;
    EXPECT_EQ(p->getSource(c.sources), nullptr);
}

INSTANTIATE_TEST_SUITE_P(Cuts, TruncatedProperties,
                         ::testing::Values(CutCase{0, 0, -1, -1}, CutCase{12, 0, -1, 5}, CutCase{13, 0, 0, 5},
                                           CutCase{36, 0, 0, 5}, CutCase{37, 1, 1, 5}, CutCase{70, 1, 1, 5},
                                           CutCase{71, 2, 2, 5}));

TEST(TruncatedProperties, HeaderLengthShorterThanMessageLimitsTheBlock) {
    Bytes m = hex(PROPS_V5);
    m[4] = 0x0C;  // the count byte lies just outside the announced block
    CResponse r;
    ASSERT_EQ(r.setHeader(m.data(), (int)m.size()), 0);
    CProps* p = r.getProperties();
    EXPECT_EQ(p->getSource(0), nullptr);
    EXPECT_EQ(std::vector<int>({p->getNumOfSources(), p->ImageProcessingSupport(), p->OriginalDocumentSupport()}),
              std::vector<int>({-1, 0xFF, 0xFF}));
}

TEST(TruncatedProperties, HugeCountsInAShortBlock) {
    // Major 4, 255 sources announced, the first claiming 255 resolutions.
    Bytes m = hex("1B 53 03 00 FF FF 00 00 | 04 00 00 00 00 00 FF | 01 01 00 00 00 00 00 00 00 00 00 00 00 00 FF | 00 00");
    CResponse r;
    ASSERT_EQ(r.setHeader(m.data(), (int)m.size()), 0);
    EXPECT_EQ(r.getProperties()->getNumOfSources(), 0);
    EXPECT_EQ(r.getProperties()->getSource(0), nullptr);
}

TEST(Properties, LaterRepliesReplaceOrKeepTheProperties) {
    Bytes v4 = hex(PROPS_V4), v5 = hex(PROPS_V5), status = hex("1B 53 04 00 00 00 00 00");
    CResponse r;
    ASSERT_EQ(r.setHeader(v4.data(), (int)v4.size()) + r.setHeader(v5.data(), (int)v5.size()), 0);
    EXPECT_EQ(r.getProperties()->getMajor(), 5);
    ASSERT_EQ(r.setHeader(status.data(), 8), 0);  // no block: the properties stay
    EXPECT_EQ(r.getProperties()->getMajor(), 5);
}

TEST(ScanSizes, WalkTheEntries) {
    Bytes m = hex(SIZES);
    CResponse r;
    ASSERT_EQ(r.setHeader(m.data(), (int)m.size()), 0);
    EXPECT_EQ(r.getReply(), 9);
    CProps* p = r.getProperties();
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(p->getNumOfCustomSizes(), 2);
    const char* names[2] = {"Card", "Photo"};
    const double widths[2] = {3.5, 6.0};
    const double lengths[2] = {2.0, 4.2};
    int pos = 1;
    for (int i = 0; i < 2; ++i) {
        int len = p->getPaperNameLength(pos);
        pos += 2;
        std::unique_ptr<char[]> name(p->getPaperName(pos, len));
        pos += len;
        EXPECT_STREQ(name.get(), names[i]);
        EXPECT_DOUBLE_EQ(p->customScanSizeWidth(pos), widths[i]);
        pos += 2;
        EXPECT_DOUBLE_EQ(p->customScanSizeLength(pos), lengths[i]);
        pos += 3;
    }
    EXPECT_EQ(pos, 24);
    // Reads past the block are absent.
    EXPECT_EQ(p->getPaperNameLength(24), 0);
    EXPECT_EQ(p->getPaperNameLength(-1), 0);
    EXPECT_DOUBLE_EQ(p->customScanSizeWidth(23), 0.0);
    EXPECT_DOUBLE_EQ(p->customScanSizeLength(-2), 0.0);
    std::unique_ptr<char[]> tail(p->getPaperName(19, 200));
    EXPECT_EQ(Bytes(tail.get(), tail.get() + 6), hex("70 17 68 10 00 00"));
    for (int i = 5; i < 1024; ++i) ASSERT_EQ(tail[i], 0) << i;
    std::unique_ptr<char[]> outside(p->getPaperName(-10, 5000));
    EXPECT_EQ(outside[0], 0);
}

TEST(Records, EmptyAndShortRecordsAnswerAbsent) {
    CProps p;
    EXPECT_EQ(p.setData(nullptr, 4), 2);
    EXPECT_EQ(std::vector<int>({p.getMajor(), p.getNumOfSources(), p.getNumOfCustomSizes(), p.ImageProcessingSupport(),
                                p.isDuplexSupported()}),
              std::vector<int>({-1, -1, -1, -1, 0}));
    CSources s;
    int v = 77, size = -3;
    Bytes rec = hex("01 00 00 00 00 00 00 00 00 00 00 00 00 00 01 | 2C 01 00 00 2C 01 00 00");
    EXPECT_EQ(s.setData(nullptr, 24, &size), 2);
    EXPECT_EQ(s.setData(rec.data(), 14, &size), 3);
    EXPECT_EQ(s.setData(rec.data(), (int)rec.size(), &size), 3);  // resolution one byte short
    EXPECT_EQ(size, -3);
    EXPECT_EQ(std::vector<int>({s.getType(), s.getDuplexSupport(), s.getWidth(&v), v}), std::vector<int>({-1, -1, -1, 0}));
    EXPECT_EQ(s.getScanRes(0), nullptr);
    CScanRes res;
    v = 77;
    EXPECT_EQ(res.setData(rec.data() + 15, 8), 3);
    EXPECT_EQ(res.setData(nullptr, 9), 2);
    EXPECT_EQ(std::vector<int>({res.getHorRes(&v), v, res.getColorDepth(), res.isEqual()}),
              std::vector<int>({-1, 0, -1, 0}));
}

}  // namespace
