#include "IMColorCorrect.h"

#include <dlfcn.h>

#include <climits>
#include <cstdio>
#include <new>

#include "ImageData.h"

namespace {

struct FileCloser {
    void operator()(FILE* f) const { fclose(f); }
};

}  // namespace

IMColorCorrect::IMColorCorrect() { Load(DEFAULT_LIBRARY, DEFAULT_FUNCTION, DEFAULT_COLOR_LUT, DEFAULT_GRAY_LUT); }

IMColorCorrect::IMColorCorrect(const char* library, const char* function, const char* colorLut,
                               const char* grayLut) {
    Load(library, function, colorLut, grayLut);
}

IMColorCorrect::~IMColorCorrect() {
    if (hScanCorrectHandle != nullptr) dlclose(hScanCorrectHandle);
}

void IMColorCorrect::Load(const char* library, const char* function, const char* colorLut,
                          const char* grayLut) {
    if (library == nullptr || function == nullptr || colorLut == nullptr || grayLut == nullptr) return;
    hScanCorrectHandle = dlopen(library, RTLD_LAZY);
    if (hScanCorrectHandle != nullptr) {
        // A null handle would make dlsym search the whole process, so look up only in the library.
        fpScanCorrect = reinterpret_cast<SCANCORRECT>(dlsym(hScanCorrectHandle, function));
    } else {
        const char* why = dlerror();
        LOG_ERROR("%s", why ? why : library);
    }
    pLutColor = ReadTable(colorLut, &pLutColorSize);
    pLutGray = ReadTable(grayLut, &pLutGraySize);
}

std::unique_ptr<unsigned char[]> IMColorCorrect::ReadTable(const char* path, int* size) {
    *size = 0;
    std::unique_ptr<FILE, FileCloser> file(fopen(path, "rb"));
    if (!file) return nullptr;
    if (fseek(file.get(), 0, SEEK_END) != 0) return nullptr;
    const long length = ftell(file.get());
    if (length <= 0 || length > INT_MAX || fseek(file.get(), 0, SEEK_SET) != 0) return nullptr;
    std::unique_ptr<unsigned char[]> table(new (std::nothrow) unsigned char[length]());
    if (!table) return nullptr;
    if (fread(table.get(), 1, (size_t)length, file.get()) < (size_t)length) return nullptr;
    *size = (int)length;
    return table;
}

int IMColorCorrect::Perform(ImageData* image, int size) {
    unsigned char* data = image != nullptr ? image->GetRawDataPtr() : nullptr;
    const int stride = image != nullptr ? image->GetStride() : 0;
    if (hScanCorrectHandle == nullptr || fpScanCorrect == nullptr || !pLutColor || !pLutGray ||
        data == nullptr || stride <= 0) {
        LOG_ERROR("Scan Correct failed.");
        return 0;
    }
    if (size > image->GetRawDataSize()) size = image->GetRawDataSize();
    const bool color = image->GetNumOfChannels() == 3;
    unsigned char* lut = color ? pLutColor.get() : pLutGray.get();
    const int lutSize = color ? pLutColorSize : pLutGraySize;
    int rc = fpScanCorrect(data, image->GetScanWidth(), size / stride, stride, color ? 1 : 0, lut, lutSize);
    // A library error is only logged; the lines pass on as the library left them.
    if (rc == 0)
        LOG_DEBUG("Scan Correct successful.");
    else
        LOG_ERROR("Scan Correct error = %d.", rc);
    return 1;
}
