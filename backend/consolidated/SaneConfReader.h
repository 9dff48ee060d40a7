// The backend configuration file: device lines (vid, pid, feature file, model)
// and key=value switches.
#ifndef QUARTO_SANECONFREADER_H
#define QUARTO_SANECONFREADER_H

#include <map>
#include <string>
#include <vector>

#include "CLogger.h"

// The maker's name, the one partner brand treated like the maker, and the
// built-in list of every partner brand.
const char MAKER_NAME[] = "Tarvesk";
const char PARTNER_BRAND[] = "Velmarsk";
const char PARTNER_BRAND_LIST[] = "Velmarsk,Quindorra,Ostrevin,Brannakt";

struct ScannerInfo {
    int iVID = 0;
    int iPID = 0;
    std::string szFeaturePathFname;
    std::string szModelName;  // underscores already turned into blanks
};

class SaneConfReader : public CLogger {
public:
    SaneConfReader();
    virtual ~SaneConfReader();

    int LoadConf(const char* fileName);
    void Add(int vid, int pid, const char* featureFile, const char* model);
    int isFound(int vid, int pid);
    const char* GetFeatureFile(int vid, int pid);
    const char* getConfigValue(const char* key);
    const char* GetManufacturer();
    int PushManufacturer(const char* text);

    const std::vector<ScannerInfo>& GetScannerList() const { return ScannerList; }

private:
    // The first device line with both identifiers, or a null pointer.
    const ScannerInfo* findScanner(int vid, int pid) const;

    std::vector<ScannerInfo> ScannerList;
    char cBackend[32];
    std::map<std::string, std::string> configPairs;
};

#endif
