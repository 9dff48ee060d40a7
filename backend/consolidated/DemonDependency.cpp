#include "DemonDependency.h"

#include <cstdlib>

#include "CResponse.h"
#include "ICommand.h"
#include "ICommunication.h"

namespace {
const char DEMON_ENV[] = "SCAN_ENABLE_DEMON";
}

void DemonDependency::init(ICommunication* comm, ConfigReader* config) {
    pComm = comm;
    pCfgReader = config;
}

int DemonDependency::start() {
    LOG_METHOD_START();
    LOG_DEBUG("checking ENV %s", DEMON_ENV);
    const char* value = getenv(DEMON_ENV);
    if (value == nullptr || value[0] != '1') {
        LOG_DEBUG("demon operation disabled");
        LOG_METHOD_END_INT(0);
        return 0;
    }
    LOG_DEBUG("demon operation enabled");
    CResponse params;
    if (pComm == nullptr || pComm->writeCommand(CMD_ID_SCAN_PARAMS, &params) != CMD_ID_SCAN_PARAMS) {
        LOG_ERROR("failed to fetch scan parameters");
        LOG_METHOD_END_INT(-1);
        return -1;
    }
    CResponse status;
    pComm->writeCommand(CMD_ID_STATUS, &status);
    const int adfStatus = status.getADFStatus();
    LOG_DEBUG("response.getADFStatus() = %d", adfStatus);

    int length = 0;
    unsigned char* data = params.getData(&length);
    ICommand* command = pComm->getCommand();
    if (command != nullptr && data != nullptr && length > 0) command->prepareScanCommand(data, length, adfStatus);
    LOG_METHOD_END_INT(0);
    return 0;
}
