#include "ScanReadStatusDisplayMgr.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "util.h"

namespace {

const char DEFAULT_BASE_PATH[] = "/tmp";
const char DATA_FILE_PREFIX[] = "/.tmp.display.";
const char END_LINE[] = "[END]";

}  // namespace

ScanReadStatusDisplayMgr* ScanReadStatusDisplayMgr::getInstance() {
    // One per process, for the whole life of the process.
    static ScanReadStatusDisplayMgr instance;
    return &instance;
}

ScanReadStatusDisplayMgr::ScanReadStatusDisplayMgr() : basePath(DEFAULT_BASE_PATH), fd(-1), running(false) {}

ScanReadStatusDisplayMgr::~ScanReadStatusDisplayMgr() {
    if (fd != -1) close(fd);
}

void ScanReadStatusDisplayMgr::setBasePath(char* p) {
    if (p != nullptr) basePath = p;
}

void ScanReadStatusDisplayMgr::setProgressWindowAppCommand(const char* command) {
    appCmd = command != nullptr ? command : "";
}

int ScanReadStatusDisplayMgr::openDataFile(std::string& p) {
    p += DATA_FILE_PREFIX + std::to_string((long long)time(nullptr));
    // The data file is always new: nothing is written through a link or into
    // a file that somebody else put there first. Close-on-exec, so that the
    // window program sees only its own descriptor on the file and can tell
    // when the scanning process has gone.
    int f = open(p.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (f < 0) LOG_ERROR("[ERROR] unable to create progress data file %s", p.c_str());
    return f;
}

bool ScanReadStatusDisplayMgr::deleteDataFile(std::string& p) { return unlink(p.c_str()) == 0; }

int ScanReadStatusDisplayMgr::start() {
    const char* display = getenv("DISPLAY");
    if (running || display == nullptr || display[0] == '\0' || appCmd.empty()) return 0;
    path = basePath;
    fd = openDataFile(path);
    if (fd < 0) {
        fd = -1;
        return 0;
    }
    // Both values are quoted, so the program named in the feature file runs
    // with exactly the data file as its argument and nothing else reaches the
    // shell. The window gets no terminal streams of the front end (whose
    // standard output may be the image itself).
    std::string command =
        utilShellQuote(appCmd) + " " + utilShellQuote(path) + " </dev/null >/dev/null 2>&1 &";
    LOG_DEBUG("starting progress window: %s", command.c_str());
    if (system(command.c_str()) == -1) {
        // Nothing was started: the data file has no reader and goes again.
        LOG_ERROR("[ERROR] unable to start the progress window");
        close(fd);
        fd = -1;
        deleteDataFile(path);
        return 0;
    }
    running = true;
    return 0;
}

bool ScanReadStatusDisplayMgr::update(const char* text) {
    if (!running || fd == -1 || text == nullptr) return false;
    std::string line = std::string(text) + "\n";
    return writeDataToFile(fd, (const unsigned char*)line.data(), (unsigned int)line.size()) == 0;
}

bool ScanReadStatusDisplayMgr::stop() {
    bool sent = update(END_LINE);
    // The end line goes out twice and only the first write decides: intended.
    update(END_LINE);
    if (!sent) return false;
    running = false;
    int rc = close(fd);
    fd = -1;
    if (rc != 0) return false;
    return deleteDataFile(path);
}
