#include "NValueObjects.h"

void NValueObjects::setIp(const std::string& ip) { sIp = ip; }
const std::string& NValueObjects::getIp() const { return sIp; }
void NValueObjects::setMac(const std::string& mac) { sMac = mac; }
const std::string& NValueObjects::getMac() const { return sMac; }
void NValueObjects::setModel(const std::string& model) { sModel = model; }
const std::string& NValueObjects::getModel() const { return sModel; }
void NValueObjects::setManufacturer(const std::string& manufacturer) { sManufacturer = manufacturer; }
const std::string& NValueObjects::getManufacturer() const { return sManufacturer; }
void NValueObjects::setVid(uint32_t vid) { iVid = vid; }
uint32_t NValueObjects::getVid() const { return iVid; }
void NValueObjects::setPid(uint32_t pid) { iPid = pid; }
uint32_t NValueObjects::getPid() const { return iPid; }
void NValueObjects::setFamilyId(uint32_t family) { iFamilyId = family; }
uint32_t NValueObjects::getFamilyId() const { return iFamilyId; }
