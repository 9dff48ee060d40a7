// Small helpers shared by the tests: temporary directories, files, commands and
// the locations of the source and build trees.
#ifndef QUARTO_TESTUTIL_H
#define QUARTO_TESTUTIL_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace qt {

// Source and build trees, from QUARTO_SOURCE_DIR / QUARTO_BINARY_DIR (set by ctest).
std::string sourceDir();
std::string binaryDir();

// A fresh private directory under $TMPDIR (or /tmp), removed by the destructor.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return szPath; }
    std::string file(const std::string& name) const { return szPath + "/" + name; }

private:
    std::string szPath;
};

void writeFile(const std::string& path, const std::string& content);
// Replaces every occurrence of from in s by to.
void replaceAll(std::string& s, const std::string& from, const std::string& to);
std::string readFile(const std::string& path);
bool fileExists(const std::string& path);
// The names in a directory, sorted, without "." and ".."; empty when it cannot be read.
std::vector<std::string> listDir(const std::string& path);

// Runs argv (no shell) with extra environment entries "K=V"; returns the exit
// status (or 128 + signal), stdout and stderr captured into the strings given.
int runProgram(const std::vector<std::string>& argv, const std::vector<std::string>& env, std::string* out,
               std::string* err, int timeoutSeconds = 300);

// The descriptors a started program gets as its standard input, output and
// error; -1 keeps /dev/null for input and the caller's own for the others.
struct ChildFds {
    int in = -1;
    int out = -1;
    int err = -1;
};

// Starts argv (no shell) with extra environment entries "K=V", in a process
// group of its own when asked; returns its pid, or -1.
pid_t spawnProgram(const std::vector<std::string>& argv, const std::vector<std::string>& env, const ChildFds& fds,
                   bool ownGroup = false);

// Waits at most timeoutSeconds for pid, then kills it (and its group when
// asked); returns the exit status, 128 + signal, or -1.
int waitProgram(pid_t pid, int timeoutSeconds, bool group = false);

// Resident memory of this process in kB from /proc/self/status: key "VmHWM"
// (the peak) or "VmRSS" (now); -1 when unknown.
long residentKb(const char* key);
// Restarts the peak (VmHWM) from the current resident size; false when the
// kernel does not offer that.
bool resetResidentPeak();

// Captures what the calling process writes to standard error while alive.
class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture();
    std::string finish();  // restores stderr and returns what was written

private:
    int iSavedFd = -1;
    std::string szFile;
    bool bDone = false;
};

// Sets an environment variable for the lifetime of the object, then restores it.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value);  // value nullptr: unset
    ~ScopedEnv();

private:
    std::string szName;
    std::string szOld;
    bool bHadOld = false;
};

}  // namespace qt

#endif
