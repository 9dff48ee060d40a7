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
        rmdir(szDir.c_str());
    }
    // Replaces the contents with data; never follows a link planted in its place.
    const char* write(const uint8_t* data, size_t size) {
        int fd = open(szPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, 0600);
        if (fd < 0) abort();
        if (writeDataToFile(fd, data, (unsigned)size) != 0) abort();
        close(fd);
        return szPath.c_str();
    }

private:
    std::string szDir;
    std::string szPath;
};

#endif
