// One scanner found on the network by the discovery query: its address, MAC,
// IEEE 1284 identification string, manufacturer display name, USB-style
// identifiers and device family, as its TXT records gave them.
#ifndef QUARTO_NVALUEOBJECTS_H
#define QUARTO_NVALUEOBJECTS_H

#include <cstdint>
#include <string>

#include "CLogger.h"

class NValueObjects : public CLogger {
public:
    NValueObjects() = default;

    void setIp(const std::string& ip);
    const std::string& getIp() const;
    void setMac(const std::string& mac);
    const std::string& getMac() const;
    void setModel(const std::string& model);
    const std::string& getModel() const;
    void setManufacturer(const std::string& manufacturer);
    const std::string& getManufacturer() const;
    void setVid(uint32_t vid);
    uint32_t getVid() const;
    void setPid(uint32_t pid);
    uint32_t getPid() const;
    void setFamilyId(uint32_t family);
    uint32_t getFamilyId() const;

private:
    std::string sIp;
    std::string sMac;
    std::string sModel;
    std::string sManufacturer;
    uint32_t iVid = 0;
    uint32_t iPid = 0;
    uint32_t iFamilyId = 0;
};

#endif
