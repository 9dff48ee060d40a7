// The typed option store of one scan session: six independent maps plus the
// computed keys (offsets, widths, heights, pixels and bytes per line) derived on
// every read from the selection rectangle, the resolution and the colour depth.
#ifndef QUARTO_CONFIGREADER_H
#define QUARTO_CONFIGREADER_H

#include <map>
#include <string>

#include "CLogger.h"

// Values of the COLORDEPTH option.
const int COLOR_DEPTH_BW = 0;
const int COLOR_DEPTH_GRAY = 1;
const int COLOR_DEPTH_COLOR = 2;

class ConfigReader : public CLogger {
public:
    ConfigReader();
    virtual ~ConfigReader();
    // Filled by the derived readers; the base store has nothing to load.
    virtual int LoadConfig(const char* fileName);

    int GetIntOption(const char* key);
    double GetDoubleOption(const char* key);
    const char* GetStringOption(const char* key);
    int SetIntOption(const char* key, int value);
    int SetDoubleOption(const char* key, double value);
    int SetStringOption(const char* key, const char* value);

    int SetIntListOption(const char* key, const std::map<std::string, int>& list);
    int SetDoubleListOption(const char* key, const std::map<std::string, double>& list);
    int SetStringListOption(const char* key, const std::map<std::string, std::string>& list);
    int GetIntListOption(const char* key, std::map<std::string, int>& out);
    int GetDoubleListOption(const char* key, std::map<std::string, double>& out);
    int GetStringListOption(const char* key, std::map<std::string, std::string>& out);

    void SetUpOperands();
    int GetComputedOption(const char* key);
    void DisplayConfig();
    void DisplayComputedValues();

protected:
    std::map<std::string, int> IntOptions;
    std::map<std::string, double> DoubleOptions;
    std::map<std::string, std::string> StringOptions;
    std::map<std::string, std::map<std::string, int>> IntListOptions;
    std::map<std::string, std::map<std::string, double>> DoubleListOptions;
    std::map<std::string, std::map<std::string, std::string>> StringListOptions;

    double iCurrentDPI = 0.0;
    double iColorDepth = 0.0;
    double iCurrentTlx = 0.0;
    double iCurrentTly = 0.0;
    double iCurrentBrx = 0.0;
    double iCurrentBry = 0.0;

private:
    // Millimetres to pixels at the current resolution (operands as last refreshed).
    double toPixels(double mm) const;
    int computePixelsPerLine();
    int computeBytesPerLine();
};

#endif
