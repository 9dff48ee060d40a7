#include "ScanRecordDataMgr.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>

#include "util.h"

namespace {

const char DEFAULT_BASE_PATH[] = "/tmp";
const char PAGE_FILE_PREFIX[] = "/data.";

}  // namespace

ScanRecordDataMgr* ScanRecordDataMgr::getInstance() {
    // One per process, for the whole life of the process.
    static ScanRecordDataMgr instance;
    return &instance;
}

ScanRecordDataMgr::ScanRecordDataMgr() : basePath(DEFAULT_BASE_PATH), counter(0), currentFd(-1) {}

ScanRecordDataMgr::~ScanRecordDataMgr() {
    if (currentFd != -1) close(currentFd);
}

void ScanRecordDataMgr::setBasePath(char* path) {
    clearPages();
    if (path != nullptr) basePath = path;
}

void ScanRecordDataMgr::constructFilePath(std::string& path) {
    path = basePath + PAGE_FILE_PREFIX + std::to_string(counter + 1);
}

int ScanRecordDataMgr::openNewDataFile(std::string& path) {
    constructFilePath(path);
    // A page file is always new: nothing is written through a link or into a
    // file that somebody else put there first.
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) LOG_ERROR("[ERROR] unable to create page file %s", path.c_str());
    return fd;
}

int ScanRecordDataMgr::openDataFile(std::string& path) {
    // A queued page is read back only from the regular file of ours that was
    // written; a link, a missing file or somebody else's file is a failed take.
    int fd = open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        LOG_ERROR("[ERROR] unable to open page file %s", path.c_str());
        return -1;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != geteuid()) {
        LOG_ERROR("[ERROR] page file %s is not a regular file of ours", path.c_str());
        close(fd);
        return -1;
    }
    return fd;
}

bool ScanRecordDataMgr::deleteDataFile(std::string& path) {
    // A page file that is already gone (a clean-up of the temporary
    // directory) counts as deleted: otherwise clearing would stop at it for
    // good, and this process-wide queue would keep it in front of the pages
    // of every later job, none of which could then be handed out.
    return unlink(path.c_str()) == 0 || errno == ENOENT;
}

bool ScanRecordDataMgr::putPageFragment(unsigned char* data, unsigned int length) {
    if (currentFd == -1) {
        std::string path;
        int fd = openNewDataFile(path);
        if (fd < 0) return false;
        pages.push_back(path);
        ++counter;
        currentFd = fd;
    }
    if (length == 0) return true;
    if (data == nullptr) return false;
    return writeDataToFile(currentFd, data, length) == 0;
}

bool ScanRecordDataMgr::endPage() {
    if (close(currentFd) != 0) return false;
    currentFd = -1;
    return true;
}

bool ScanRecordDataMgr::takePage(unsigned char** data, unsigned int* length) {
    if (data == nullptr || length == nullptr || pages.empty()) return false;
    std::string path = pages.front();
    int fd = openDataFile(path);
    if (fd < 0) return false;
    off_t size = lseek(fd, 0, SEEK_END);
    // A page larger than a frame can describe cannot be handed out.
    if (size < 0 || size > (off_t)INT_MAX || lseek(fd, 0, SEEK_SET) != 0) {
        close(fd);
        return false;
    }
    std::unique_ptr<unsigned char, FreeDeleter> bytes((unsigned char*)malloc(size > 0 ? (size_t)size : 1u));
    if (!bytes) {
        close(fd);
        return false;
    }
    off_t done = 0;
    while (done < size) {
        ssize_t n = read(fd, bytes.get() + done, (size_t)(size - done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += n;
    }
    // The read descriptor is closed: a front end that scans thousands of pages
    // in one process would otherwise run out of descriptors.
    close(fd);
    if (done != size) return false;
    if (!deleteDataFile(path)) return false;
    pages.pop_front();
    // Pages are taken only once the job has ended, so no page is being
    // written here; one that was would be closed rather than leaked.
    if (currentFd != -1) close(currentFd);
    currentFd = -1;
    --counter;
    *data = bytes.release();
    *length = (unsigned int)size;
    return true;
}

int ScanRecordDataMgr::getTotalPages() { return (int)pages.size(); }

void ScanRecordDataMgr::clearPages() {
    // The page still being written is closed too, so that a job that broke
    // off leaves no descriptor behind.
    if (currentFd != -1) {
        close(currentFd);
        currentFd = -1;
    }
    while (!pages.empty()) {
        if (!deleteDataFile(pages.front())) break;
        pages.pop_front();
    }
}

bool ScanRecordDataMgr::discardCurrentPage() {
    if (currentFd == -1 || pages.empty()) return false;
    close(currentFd);
    currentFd = -1;
    bool deleted = deleteDataFile(pages.back());
    pages.pop_back();
    --counter;
    return deleted;
}
