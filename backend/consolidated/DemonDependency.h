// Fetches the scan parameters chosen on the device's panel right after a device
// is opened, when SCAN_ENABLE_DEMON is "1".
#ifndef QUARTO_DEMONDEPENDENCY_H
#define QUARTO_DEMONDEPENDENCY_H

#include "CLogger.h"

class ICommunication;
class ConfigReader;

class DemonDependency : public CLogger {
public:
    DemonDependency() = default;
    void init(ICommunication* comm, ConfigReader* config);
    int start();

private:
    ICommunication* pComm = nullptr;
    ConfigReader* pCfgReader = nullptr;
};

#endif
