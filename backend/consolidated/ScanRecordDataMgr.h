// The page cache of multi-page feeder jobs: every page of a job goes to a
// numbered file ("data.1", "data.2", ...) under the base directory while the
// device sends it, and the pages are handed back one at a time, oldest first.
// One instance per process; the USB transport points it at a private job
// directory before a job and clears it when it is destroyed.
#ifndef QUARTO_SCANRECORDDATAMGR_H
#define QUARTO_SCANRECORDDATAMGR_H

#include <deque>
#include <string>

#include "CLogger.h"

class ScanRecordDataMgr : public CLogger {
public:
    static ScanRecordDataMgr* getInstance();
    virtual ~ScanRecordDataMgr();
    ScanRecordDataMgr(const ScanRecordDataMgr&) = delete;
    ScanRecordDataMgr& operator=(const ScanRecordDataMgr&) = delete;

    // Deletes the queued pages, then uses path as the directory of new pages.
    void setBasePath(char* path);
    const std::string& getBasePath() const { return basePath; }
    // Appends bytes to the current page, starting a new page file when none is open.
    bool putPageFragment(unsigned char* data, unsigned int length);
    // Finishes the current page.
    bool endPage();
    // Removes the oldest page and returns its content, malloc'ed (the caller frees it).
    bool takePage(unsigned char** data, unsigned int* length);
    // Queued pages, the one still being written included.
    int getTotalPages();
    void clearPages();
    // Closes and deletes the page still being written, so that a job that
    // broke off in mid-page leaves only whole pages queued.
    bool discardCurrentPage();

    void constructFilePath(std::string& path);
    int openNewDataFile(std::string& path);
    int openDataFile(std::string& path);
    bool deleteDataFile(std::string& path);

protected:
    ScanRecordDataMgr();

private:
    std::string basePath;
    int counter;
    int currentFd;
    std::deque<std::string> pages;  // first in, first out
};

#endif
