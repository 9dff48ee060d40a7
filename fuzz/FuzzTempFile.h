// A private file that a fuzz target rewrites with each input, for readers that
// take a file name. It lives in a mkdtemp directory removed at exit.
#ifndef QUARTO_FUZZTEMPFILE_H
#define QUARTO_FUZZTEMPFILE_H

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "util.h"

class FuzzTempFile {
public:
    explicit FuzzTempFile(const char* name) {
        const char* tmp = getenv("TMPDIR");
        std::string tmpl = std::string(tmp && *tmp ? tmp : "/tmp") + "/quarto-fuzz-XXXXXX";
        if (mkdtemp(&tmpl[0]) == nullptr) abort();
        szDir = tmpl;
        szPath = szDir + "/" + name;
    }
    ~FuzzTempFile() {
        unlink(szPath.c_str());
        if (!szSibling.empty()) unlink(szSibling.c_str());
        rmdir(szDir.c_str());
    }
    // Replaces the file with one holding data; never follows a link planted in its place.
    const char* write(const uint8_t* data, size_t size) { return put(szPath, data, size); }
    // The same for one more file of that name in the same directory.
    const char* writeSibling(const char* name, const uint8_t* data, size_t size) {
        szSibling = szDir + "/" + name;
        return put(szSibling, data, size);
    }
    const std::string& dir() const { return szDir; }

private:
    // A new file each time: truncating one in place makes ext4 flush it to the
    // disk on close, which costs milliseconds a run.
    static const char* put(const std::string& path, const uint8_t* data, size_t size) {
        unlink(path.c_str());
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
        if (fd < 0) abort();
        if (writeDataToFile(fd, data, (unsigned)size) != 0) abort();
        close(fd);
        return path.c_str();
    }

    std::string szDir;
    std::string szPath;
    std::string szSibling;
};

#endif
