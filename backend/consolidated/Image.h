// A raw page image (grey or colour, row by row) that is turned by 90, 180 or
// 270 degrees while it is read from a file holding its pixels.
#ifndef QUARTO_IMAGE_H
#define QUARTO_IMAGE_H

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "CLogger.h"
#include "util.h"

class Image : public CLogger {
public:
    Image() = default;
    // Computes the bytes per pixel and the size and allocates the zeroed buffer;
    // a geometry whose size does not fit leaves the image empty.
    Image(int width, int height, int colordepth);
    // The same over buffer, taken over (malloc'ed, freed with free()): it must
    // hold the image and one pixel more. Its contents need not be zero; the
    // rotation clears what it does not fill, so the result is the same.
    Image(int width, int height, int colordepth, unsigned char* buffer);
    ~Image();
    Image(const Image&) = delete;
    Image& operator=(const Image&) = delete;

    // 1 for grey (code 1), 3 for colour (code 2), 0 otherwise.
    static int getBytesPerPixel(int colordepth);

    // Reads the raw pixels of this image's geometry from f and returns the
    // turned image (the object's own buffer), or null for a null file, an
    // empty image, an angle other than 90, 180 and 270, or a failed seek.
    unsigned char* rotateImageFromFile(FILE* f, int angle);

    int getWidth() const { return mWidth; }
    int getHeight() const { return mHeight; }
    int getSize() const { return mSize; }
    int getBytesPerPixel() const { return mBytesPerPixel; }
    int getColordepth() const { return mColordepth; }
    unsigned char* getData() const { return mData.get(); }
    // Hands the pixel buffer (mSize bytes and the spare pixel behind them) to
    // the caller, who frees it with free(); the image is empty afterwards.
    unsigned char* releaseData();

private:
    unsigned char* rotate180(FILE* f);
    unsigned char* rotate270(FILE* f);

    int mColordepth = 0;
    int mBytesPerPixel = 0;
    int mWidth = 0;
    int mHeight = 0;
    int mSize = 0;
    std::unique_ptr<unsigned char, FreeDeleter> mData;
};

#endif
