// The progress window of multi-page feeder jobs: an external program, started
// in the background with the path of a data file as its one argument, that
// shows each line written to the file (the number of the page being scanned)
// until the line "[END]". One instance per process.
#ifndef QUARTO_SCANREADSTATUSDISPLAYMGR_H
#define QUARTO_SCANREADSTATUSDISPLAYMGR_H

#include <string>

#include "CLogger.h"

class ScanReadStatusDisplayMgr : public CLogger {
public:
    static ScanReadStatusDisplayMgr* getInstance();
    virtual ~ScanReadStatusDisplayMgr();
    ScanReadStatusDisplayMgr(const ScanReadStatusDisplayMgr&) = delete;
    ScanReadStatusDisplayMgr& operator=(const ScanReadStatusDisplayMgr&) = delete;

    void setBasePath(char* path);
    const std::string& getBasePath() const { return basePath; }
    // The program that shows the window (one program path, no arguments).
    void setProgressWindowAppCommand(const char* command);
    // Starts the window when a display is there; always 0.
    int start();
    // Sends one line to the window; true if it was written whole.
    bool update(const char* text);
    // Sends "[END]", then closes and deletes the data file.
    bool stop();
    bool isRunning() const { return running; }

    int openDataFile(std::string& path);
    bool deleteDataFile(std::string& path);

protected:
    ScanReadStatusDisplayMgr();

private:
    std::string basePath;
    std::string appCmd;
    std::string path;
    int fd;
    bool running;
};

#endif
