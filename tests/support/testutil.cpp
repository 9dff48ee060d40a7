#include "testutil.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace qt {

static std::string envOr(const char* name, const char* fallback) {
    const char* v = getenv(name);
    return v && *v ? v : fallback;
}

std::string sourceDir() { return envOr("QUARTO_SOURCE_DIR", "."); }
std::string binaryDir() { return envOr("QUARTO_BINARY_DIR", "./build"); }

long residentKb(const char* key) {
    std::string s = readFile("/proc/self/status");
    size_t pos = s.find(std::string(key) + ":");
    return pos == std::string::npos ? -1 : atol(s.c_str() + pos + strlen(key) + 1);
}

bool resetResidentPeak() {
    int fd = open("/proc/self/clear_refs", O_WRONLY | O_CLOEXEC);
    if (fd < 0) return false;
    bool ok = write(fd, "5", 1) == 1;
    close(fd);
    return ok;
}

TempDir::TempDir() {
    std::string tmpl = envOr("TMPDIR", "/tmp") + "/quarto-test-XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    szPath = buf.data();
}

TempDir::~TempDir() {
    // Only ever removes the directory this object created.
    if (szPath.find("/quarto-test-") == std::string::npos) return;
    std::vector<std::string> argv = {"rm", "-rf", "--", szPath};
    runProgram(argv, {}, nullptr, nullptr, 60);
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    if (!f) throw std::runtime_error("cannot write " + path);
    f << content;
}

void replaceAll(std::string& s, const std::string& from, const std::string& to) {
    for (size_t pos = s.find(from); pos != std::string::npos; pos = s.find(from, pos + to.size()))
        s.replace(pos, from.size(), to);
}

std::string readFile(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

bool fileExists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

std::vector<std::string> listDir(const std::string& path) {
    std::vector<std::string> names;
    if (DIR* d = opendir(path.c_str())) {
        while (struct dirent* e = readdir(d))
            if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

static std::string drain(int fd) {
    std::string s;
    char buf[65536];
    lseek(fd, 0, SEEK_SET);
    ssize_t n;
    while ((n = read(fd, buf, sizeof(buf))) > 0) s.append(buf, (size_t)n);
    return s;
}

static int makeTempFile(std::string* name) {
    std::string tmpl = envOr("TMPDIR", "/tmp") + "/quarto-out-XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    int fd = mkostemp(buf.data(), O_CLOEXEC);
    if (fd < 0) throw std::runtime_error("mkstemp failed");
    *name = buf.data();
    return fd;
}

pid_t spawnProgram(const std::vector<std::string>& argv, const std::vector<std::string>& env, const ChildFds& fds,
                   bool ownGroup) {
    if (argv.empty()) return -1;
    pid_t pid = fork();
    if (pid != 0) {
        if (pid > 0 && ownGroup) setpgid(pid, pid);
        return pid;
    }
    if (ownGroup) setpgid(0, 0);
    int in = fds.in >= 0 ? fds.in : open("/dev/null", O_RDONLY);
    if (in >= 0) dup2(in, 0);
    if (fds.out >= 0) dup2(fds.out, 1);
    if (fds.err >= 0) dup2(fds.err, 2);
    for (const std::string& e : env) putenv(strdup(e.c_str()));
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    _exit(127);
}

int waitProgram(pid_t pid, int timeoutSeconds, bool group) {
    if (pid <= 0) return -1;
    int status = 0;
    const time_t deadline = time(nullptr) + timeoutSeconds;
    while (true) {
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) break;
        if (r < 0 && errno != EINTR) return -1;
        if (time(nullptr) > deadline) {
            kill(group ? -pid : pid, SIGKILL);
            waitpid(pid, &status, 0);
            break;
        }
        usleep(10000);
    }
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

int runProgram(const std::vector<std::string>& argv, const std::vector<std::string>& env, std::string* out,
               std::string* err, int timeoutSeconds) {
    std::string outName, errName;
    int outFd = makeTempFile(&outName);
    int errFd = makeTempFile(&errName);
    unlink(outName.c_str());
    unlink(errName.c_str());
    ChildFds fds;
    fds.out = outFd;
    fds.err = errFd;
    pid_t pid = spawnProgram(argv, env, fds);
    if (pid < 0) {
        close(outFd);
        close(errFd);
        throw std::runtime_error("fork failed");
    }
    int status = waitProgram(pid, timeoutSeconds);
    if (out) *out = drain(outFd);
    if (err) *err = drain(errFd);
    close(outFd);
    close(errFd);
    return status;
}

StderrCapture::StderrCapture() {
    fflush(stderr);
    int fd = makeTempFile(&szFile);
    iSavedFd = dup(2);
    dup2(fd, 2);
    close(fd);
}

StderrCapture::~StderrCapture() { finish(); }

std::string StderrCapture::finish() {
    if (bDone) return std::string();
    bDone = true;
    fflush(stderr);
    dup2(iSavedFd, 2);
    close(iSavedFd);
    std::string s = readFile(szFile);
    unlink(szFile.c_str());
    return s;
}

ScopedEnv::ScopedEnv(const char* name, const char* value) : szName(name) {
    const char* old = getenv(name);
    if (old) {
        bHadOld = true;
        szOld = old;
    }
    if (value)
        setenv(name, value, 1);
    else
        unsetenv(name);
}

ScopedEnv::~ScopedEnv() {
    if (bHadOld)
        setenv(szName.c_str(), szOld.c_str(), 1);
    else
        unsetenv(szName.c_str());
}

}  // namespace qt
