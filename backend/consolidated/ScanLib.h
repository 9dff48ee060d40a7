// One open scanner: the scan session. (The static device-enumeration helpers
// are here too, since the SANE layer reaches the device factory through them.)
#ifndef QUARTO_SCANLIB_H
#define QUARTO_SCANLIB_H

#include <string>

#include "CLogger.h"

class ScanLib : public CLogger {
public:
    static int GetScanners(char*** list, int* count);
    static void GetBackendName(char* buffer, int size);
    // The backend configuration file to read for a name under "/etc/sane.d/":
    // the same base name in a SANE_CONFIG_DIR directory when one has it.
    static std::string ResolveConfFile(const char* etcPath);
};

#endif
