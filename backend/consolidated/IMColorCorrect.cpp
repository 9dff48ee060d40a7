#include "IMColorCorrect.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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
    // Non-blocking, so that a path naming a pipe cannot stall the scan; only a
    // regular file of a plausible size is read.
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return nullptr;
    std::unique_ptr<FILE, FileCloser> file(fdopen(fd, "rb"));
    if (!file) {
        close(fd);
        return nullptr;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size <= 0) return nullptr;
    if (st.st_size > MAX_TABLE_SIZE) {
        LOG_ERROR("table %s holds %ld bytes, more than the %ld a table can have: not used", path, (long)st.st_size,
                  MAX_TABLE_SIZE);
        return nullptr;
    }
    const long length = (long)st.st_size;
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
