// Image utilities: rotation through a file (the 180-degree mapping one pixel
// off, 90 and 270 alike), nearest-neighbour resizing with its axis
// asymmetry, grey to black-and-white with the first-pixel threshold, and PXM
// headers with the system's comment line.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Image.h"
#include "ImageUtil.h"

namespace {

using Bytes = std::vector<unsigned char>;

// A temporary file holding data, positioned anywhere but at its start.
FILE* fileWith(const Bytes& data) {
    FILE* f = tmpfile();
    if (!data.empty()) fwrite(data.data(), 1, data.size(), f);  // no null pointer to fwrite for an empty file
    return f;
}

Bytes rotated(int w, int h, int depth, const Bytes& pixels, int angle, int* ow = nullptr, int* oh = nullptr) {
    Image image(w, h, depth);
    FILE* f = fileWith(pixels);
    unsigned char* out = image.rotateImageFromFile(f, angle);
    fclose(f);
    if (ow) *ow = image.getWidth();
    if (oh) *oh = image.getHeight();
    return out ? Bytes(out, out + image.getSize() + image.getBytesPerPixel()) : Bytes();
}

std::string headerText(IMAGE_HEADER h, int withExtra, int* written) {
    FILE* f = tmpfile();
    *written = ImageUtil::writePxmHeader(f, &h, withExtra);
    std::string text((size_t)ftell(f), '\0');
    rewind(f);
    size_t n = fread(&text[0], 1, text.size(), f);
    fclose(f);
    return text.substr(0, n);
}

IMAGE_HEADER readHeader(const std::string& text) {
    FILE* f = fileWith(Bytes(text.begin(), text.end()));
    rewind(f);
    IMAGE_HEADER h;
    EXPECT_EQ(0, ImageUtil::readPxmHeader(f, &h));
    fclose(f);
    return h;
}

}  // namespace

struct RotationCase {
    int w, h, depth, angle;
    Bytes file, want;  // want holds the spare pixel after the image
};
class ImageRotation : public ::testing::TestWithParam<RotationCase> {};

// The turned pixels, the turned size, and the same result over a buffer taken
// over that is not zero.
TEST_P(ImageRotation, PlacesEveryWholePixelAsMapped) {
    const RotationCase& c = GetParam();
    int w = 0, h = 0;
    EXPECT_EQ(c.want, rotated(c.w, c.h, c.depth, c.file, c.angle, &w, &h));
    EXPECT_EQ(c.angle == 180 ? c.w : c.h, w);
    EXPECT_EQ(c.angle == 180 ? c.h : c.w, h);
    unsigned char* dirty = (unsigned char*)malloc(c.want.size());
    memset(dirty, 0xAA, c.want.size());
    Image image(c.w, c.h, c.depth, dirty);
    FILE* f = fileWith(c.file);
    unsigned char* out = image.rotateImageFromFile(f, c.angle);
    fclose(f);
    ASSERT_NE(nullptr, out);
    EXPECT_EQ(c.want, Bytes(out, out + c.want.size()));
}

// 90 and 270 both send source (c, r) to row w - 1 - c, column r; 180 is one
// pixel off into the spare pixel. A file that ends early places only its
// whole rows (90, 270) or whole pixels (180).
const Bytes GREY = {1, 2, 3, 4, 5, 6};                            // 3 x 2
const Bytes COLOUR = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};  // 2 x 2
INSTANTIATE_TEST_SUITE_P(
    Cases, ImageRotation,
    ::testing::Values(RotationCase{3, 2, 1, 90, GREY, {3, 6, 2, 5, 1, 4, 0}},
                      RotationCase{3, 2, 1, 90, {1, 2, 3, 4}, {3, 0, 2, 0, 1, 0, 0}},
                      RotationCase{2, 2, 2, 180, COLOUR, {0, 0, 0, 10, 11, 12, 7, 8, 9, 4, 5, 6, 1, 2, 3}},
                      RotationCase{2, 2, 2, 180, Bytes(COLOUR.begin(), COLOUR.begin() + 8),
                                   {0, 0, 0, 0, 0, 0, 0, 0, 0, 4, 5, 6, 1, 2, 3}},
                      RotationCase{3, 2, 1, 270, GREY, {3, 6, 2, 5, 1, 4, 0}}));

TEST(ImageRotation, RefusesOtherAnglesNoFileAndEmptyImages) {
    Image image(3, 2, 1);
    FILE* f = fileWith({1, 2, 3, 4, 5, 6});
    EXPECT_EQ(nullptr, image.rotateImageFromFile(f, 45));
    EXPECT_EQ(nullptr, image.rotateImageFromFile(f, 0));
    EXPECT_EQ(3, image.getWidth());
    EXPECT_EQ(2, image.getHeight());
    EXPECT_EQ(nullptr, image.rotateImageFromFile(nullptr, 90));
    Image unknownDepth(3, 2, 0), empty(0, 2, 2), huge(1 << 20, 1 << 20, 2);
    EXPECT_EQ(nullptr, unknownDepth.rotateImageFromFile(f, 90));
    EXPECT_EQ(nullptr, empty.rotateImageFromFile(f, 180));
    EXPECT_EQ(nullptr, huge.rotateImageFromFile(f, 180));
    fclose(f);
}

struct ResizeCase {
    int w, h, bpp, from, to;
    Bytes src;
    int ow, oh;
    Bytes want;
};
class ImageResize : public ::testing::TestWithParam<ResizeCase> {};

TEST_P(ImageResize, ScalesWidthByTheRatioAndHeightByTheWholeFactor) {
    const ResizeCase& c = GetParam();
    unsigned char* out = reinterpret_cast<unsigned char*>(1);
    int ow = -1, oh = -1;
    ImageUtil::resizeNearest(c.src.data(), c.w, c.h, &out, &ow, &oh, (unsigned short)c.from, (unsigned short)c.to,
                             (unsigned char)c.bpp);
    EXPECT_EQ(c.ow, ow);
    EXPECT_EQ(c.oh, oh);
    EXPECT_EQ(c.want, out ? Bytes(out, out + (long)ow * oh * c.bpp) : Bytes());
    free(out);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ImageResize,
    ::testing::Values(ResizeCase{2, 2, 1, 300, 600, {10, 20, 30, 40}, 4, 4,
                                 {10, 10, 20, 20, 10, 10, 20, 20, 30, 30, 40, 40, 30, 30, 40, 40}},
                      ResizeCase{2, 2, 1, 200, 300, {10, 20, 30, 40}, 3, 2, {10, 10, 20, 30, 30, 40}},
                      ResizeCase{1, 2, 3, 150, 300, {1, 2, 3, 4, 5, 6}, 2, 4,
                                 {1, 2, 3, 1, 2, 3, 1, 2, 3, 1, 2, 3, 4, 5, 6, 4, 5, 6, 4, 5, 6, 4, 5, 6}},
                      // A reduction gives height 0 and nothing to hand out.
                      ResizeCase{2, 2, 1, 600, 300, {10, 20, 30, 40}, 0, 0, {}},
                      // Only one or three bytes a pixel are copied.
                      ResizeCase{2, 2, 2, 300, 600, {1, 2, 3, 4, 5, 6, 7, 8}, 0, 0, {}},
                      ResizeCase{2, 2, 1, 0, 600, {10, 20, 30, 40}, 0, 0, {}},
                      ResizeCase{1, 1, 3, 1, 65535, {1, 2, 3}, 0, 0, {}}));

TEST(ImageBlackWhite, PacksRowsAndComparesOnlyTheFirstPixelWithTheThreshold) {
    const Bytes grey = {200, 0, 255, 179, 180, 0, 0, 0, 181, 10, 200, 0, 255, 179, 180, 0, 0, 0, 181, 10};
    unsigned char* out = nullptr;
    ASSERT_EQ(4, ImageUtil::convertGrayToBlackWhite(grey.data(), 10, 2, 250, &out));
    // Row 0's first pixel is below the threshold 250; row 1's is compared with 180.
    EXPECT_EQ((Bytes{0x28, 0x80, 0xA8, 0x80}), Bytes(out, out + 4));
    free(out);
    ASSERT_EQ(1, ImageUtil::convertGrayToBlackWhite(grey.data(), 3, 1, 0, &out));
    EXPECT_EQ(0xA0, out[0]);
    free(out);
    EXPECT_EQ(0, ImageUtil::convertGrayToBlackWhite(grey.data(), 0, 2, 0, &out));
    EXPECT_EQ(nullptr, out);
}

TEST(ImagePxmHeader, ReadsTheSystemsCommentAndStopsAfterTheSizeOfABitmap) {
    IMAGE_HEADER h = readHeader("P4\n#QVTRES=600\n100 50\n255\n");
    EXPECT_STREQ("P4", h.id);
    EXPECT_EQ(100, h.width);
    EXPECT_EQ(50, h.height);
    EXPECT_EQ(0, h.colordepth);
    EXPECT_STREQ("#QVTRES=600", h.extra);
    h = readHeader("P6\n# other\n  7\t 9 \n#QVTRES=300\n255\n");
    EXPECT_STREQ("P6", h.id);
    EXPECT_EQ(7, h.width);
    EXPECT_EQ(9, h.height);
    EXPECT_EQ(255, h.colordepth);
    EXPECT_STREQ("#QVTRES=300", h.extra);
    h = readHeader("P5\n#QVTRES" + std::string(200, 'x') + "\n1a 2\n");
    EXPECT_EQ(99u, strlen(h.extra));
    EXPECT_EQ(59, h.width) << "a letter counts as its distance from '0'";
    EXPECT_EQ(0, h.colordepth);
    EXPECT_EQ(59, ImageUtil::asciiToInt("1a"));
    EXPECT_EQ(12, ImageUtil::asciiToInt("12 3"));
    EXPECT_EQ(0, ImageUtil::asciiToInt("-5"));
}

TEST(ImagePxmHeader, WritesOnePieceOfAtMost125Characters) {
    IMAGE_HEADER h = {"P5", 255, 7, 9, "#QVTRES=300"};
    int n = 0;
    EXPECT_EQ("P5\n#QVTRES=300\n7 9\n255\n", headerText(h, 1, &n));
    EXPECT_EQ(23, n);
    EXPECT_EQ("P5\n7 9\n255\n", headerText(h, 0, &n));
    IMAGE_HEADER bitmap = {"P4", 1, 640, 480, ""};
    EXPECT_EQ("P4\n640 480\n", headerText(bitmap, 1, &n));
    EXPECT_EQ(11, n);
    IMAGE_HEADER longer = {"P6", 255, 2147483647, 2147483647, ""};
    memset(longer.extra, 'c', 99);
    longer.extra[99] = '\0';
    std::string text = headerText(longer, 1, &n);
    EXPECT_EQ(125, n);
    EXPECT_EQ("P6\n" + std::string(99, 'c') + "\n2147483647 2147483647\n", text) << "the last line is cut off";
}
