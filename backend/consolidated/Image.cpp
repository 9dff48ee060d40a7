#include "Image.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <vector>

#include "ConfigReader.h"

namespace {

// Whole pixels taken from the file per read by the 180-degree routine.
const size_t PIXELS_PER_READ = 1 << 18;

// Places the pixels of src (n bytes, whole pixels) backwards from dst on: the
// pixel at byte i of src goes to dst - i.
template <int BPP>
void placeReversed(const unsigned char* src, size_t n, unsigned char* dst) {
    if (BPP == 1) {
        std::reverse_copy(src, src + n, dst + 1 - n);
        return;
    }
    for (size_t i = 0; i < n; i += BPP) memcpy(dst - i, src + i, BPP);
}

// The size of the geometry, or 0 when it does not fit (with one pixel more).
int sizeOf(int width, int height, int bytesPerPixel) {
    const long long size = (long long)width * height * bytesPerPixel;
    if (width <= 0 || height <= 0 || size <= 0 || size > INT_MAX - bytesPerPixel) {
        LOG_DEBUG("[ERROR] image geometry %d x %d x %d does not fit", width, height, bytesPerPixel);
        return 0;
    }
    return (int)size;
}

}  // namespace

Image::Image(int width, int height, int colordepth)
    : mColordepth(colordepth), mBytesPerPixel(getBytesPerPixel(colordepth)), mWidth(width), mHeight(height) {
    const int size = sizeOf(width, height, mBytesPerPixel);
    // One spare pixel behind the image: the 180-degree mapping stores the
    // first pixel of the file there.
    if (size > 0) mData.reset((unsigned char*)calloc((size_t)size + (size_t)mBytesPerPixel, 1));
    if (mData) mSize = size;
}

Image::Image(int width, int height, int colordepth, unsigned char* buffer)
    : mColordepth(colordepth), mBytesPerPixel(getBytesPerPixel(colordepth)), mWidth(width), mHeight(height),
      mData(buffer) {
    const int size = sizeOf(width, height, mBytesPerPixel);
    if (size > 0 && mData) mSize = size;
}

Image::~Image() = default;

int Image::getBytesPerPixel(int colordepth) {
    if (colordepth == COLOR_DEPTH_GRAY) return 1;
    if (colordepth == COLOR_DEPTH_COLOR) return 3;
    return 0;
}

unsigned char* Image::releaseData() {
    mSize = 0;
    return mData.release();
}

unsigned char* Image::rotateImageFromFile(FILE* f, int angle) {
    LOG_METHOD_START();
    if (f == nullptr || mSize == 0 || !mData || (angle != 90 && angle != 180 && angle != 270)) {
        LOG_METHOD_END_STR((const char*)nullptr);
        return nullptr;
    }
    if (fseek(f, 0, SEEK_SET) != 0) {
        perror("rotateImageDataFromFile:: Error in fseek");
        return nullptr;
    }
    // 90 is served by the 270-degree routine, so both turn the same way: intended.
    unsigned char* result = angle == 180 ? rotate180(f) : rotate270(f);
    LOG_METHOD_END();
    return result;
}

unsigned char* Image::rotate180(FILE* f) {
    // After k bytes have been read the next pixel goes to byte mSize - k, so
    // the reversal is one pixel off: the file's first pixel lands in the spare
    // pixel and the result's first pixel stays zero. This mapping is intended.
    // The file is read in large blocks; each pixel is placed as if read alone.
    const size_t bpp = (size_t)mBytesPerPixel;
    std::vector<unsigned char> block(bpp * PIXELS_PER_READ);
    unsigned char* base = mData.get();
    size_t done = 0;
    const size_t total = (size_t)mSize;
    while (done < total) {
        const size_t want = std::min(block.size(), total - done);
        const size_t got = fread(block.data(), 1, want, f);
        const size_t whole = got - got % bpp;
        if (bpp == 3)
            placeReversed<3>(block.data(), whole, base + total - done);
        else
            placeReversed<1>(block.data(), whole, base + total - done);
        done += whole;
        if (got < want) break;  // the file ended; a partial pixel is not placed
    }
    // What no pixel reached stays zero: the first pixel at least.
    memset(base, 0, total + bpp - done);
    return base;
}

unsigned char* Image::rotate270(FILE* f) {
    // Source row r, column c goes to destination row (width - 1 - c), column r,
    // in rows of mHeight pixels.
    const long bpp = mBytesPerPixel;
    const long rowBytes = (long)mWidth * bpp;
    std::vector<unsigned char> row((size_t)rowBytes);
    unsigned char* base = mData.get();
    long rows = 0;
    for (; rows < mHeight && rows * rowBytes < mSize; ++rows) {
        if (fread(row.data(), 1, (size_t)rowBytes, f) != (size_t)rowBytes) break;
        for (long c = 0; c < mWidth; ++c)
            memcpy(base + ((mWidth - 1 - c) * (long)mHeight + rows) * bpp, row.data() + c * bpp, (size_t)bpp);
    }
    // What no row reached stays zero: the columns of the rows the file lacked,
    // and the spare pixel.
    for (long d = 0; d < mWidth && rows < mHeight; ++d)
        memset(base + (d * mHeight + rows) * bpp, 0, (size_t)((mHeight - rows) * bpp));
    memset(base + mSize, 0, (size_t)bpp);
    std::swap(mWidth, mHeight);
    return base;
}
