#include "ConfigReader.h"

#include <climits>
#include <cmath>
#include <cstring>

namespace {

const double MM_PER_INCH = 25.4;
const int CONNECTION_USB = 1;
const int SCAN_SOURCE_FLATBED = 0;
const int SCAN_SOURCE_ADF = 1;
const int BOXKIND_CUT = 1;
const int BITS_PER_BYTE = 8;
const int BYTES_PER_COLOR_PIXEL = 3;

// Truncating conversion that stays defined for any double: NaN gives 0 and
// values beyond the int range are clamped (feature files may hold anything).
int toInt(double v) {
    if (std::isnan(v)) return 0;
    if (v >= (double)INT_MAX) return INT_MAX;
    if (v <= (double)INT_MIN) return INT_MIN;
    return (int)v;
}

// Rounds half away from zero.
int roundToInt(double v) { return toInt(std::round(v)); }
int floorToInt(double v) { return toInt(std::floor(v)); }

template <typename Map, typename Value>
int storeValue(Map& map, const char* key, const Value& value) {
    if (key == nullptr) return 0;
    auto res = map.insert_or_assign(std::string(key), value);
    return res.second ? 1 : 2;
}

template <typename Map, typename Value>
int copyList(const Map& map, const char* key, Value& out) {
    if (key == nullptr) return 0;
    auto it = map.find(key);
    if (it == map.end()) return 0;
    out = it->second;
    return 1;
}

}  // namespace

ConfigReader::ConfigReader() = default;

ConfigReader::~ConfigReader() = default;

int ConfigReader::LoadConfig(const char* /*fileName*/) { return 0; }

int ConfigReader::GetIntOption(const char* key) {
    if (key == nullptr) return 0;
    // Computed keys come first; a computed 0 falls through to a stored value.
    int computed = GetComputedOption(key);
    if (computed != 0) return computed;
    auto it = IntOptions.find(key);
    return it == IntOptions.end() ? 0 : it->second;
}

double ConfigReader::GetDoubleOption(const char* key) {
    if (key == nullptr) return 0.0;
    auto it = DoubleOptions.find(key);
    return it == DoubleOptions.end() ? 0.0 : it->second;
}

const char* ConfigReader::GetStringOption(const char* key) {
    if (key == nullptr) return nullptr;
    auto it = StringOptions.find(key);
    return it == StringOptions.end() ? nullptr : it->second.c_str();
}

int ConfigReader::SetIntOption(const char* key, int value) { return storeValue(IntOptions, key, value); }

int ConfigReader::SetDoubleOption(const char* key, double value) {
    return storeValue(DoubleOptions, key, value);
}

int ConfigReader::SetStringOption(const char* key, const char* value) {
    return storeValue(StringOptions, key, std::string(value ? value : ""));
}

int ConfigReader::SetIntListOption(const char* key, const std::map<std::string, int>& list) {
    return storeValue(IntListOptions, key, list);
}

int ConfigReader::SetDoubleListOption(const char* key, const std::map<std::string, double>& list) {
    return storeValue(DoubleListOptions, key, list);
}

int ConfigReader::SetStringListOption(const char* key, const std::map<std::string, std::string>& list) {
    return storeValue(StringListOptions, key, list);
}

int ConfigReader::GetIntListOption(const char* key, std::map<std::string, int>& out) {
    return copyList(IntListOptions, key, out);
}

int ConfigReader::GetDoubleListOption(const char* key, std::map<std::string, double>& out) {
    return copyList(DoubleListOptions, key, out);
}

int ConfigReader::GetStringListOption(const char* key, std::map<std::string, std::string>& out) {
    return copyList(StringListOptions, key, out);
}

void ConfigReader::SetUpOperands() {
    LOG_METHOD_START();
    iCurrentDPI = 0.0;
    iColorDepth = 0.0;
    iCurrentTlx = 0.0;
    iCurrentTly = 0.0;
    iCurrentBrx = 0.0;
    iCurrentBry = 0.0;

    // Read from the map directly, not through GetIntOption.
    auto dpi = IntOptions.find("CURRENTDPI");
    if (dpi != IntOptions.end()) iCurrentDPI = dpi->second;
    auto depth = IntOptions.find("COLORDEPTH");
    if (depth != IntOptions.end()) iColorDepth = depth->second == 0 ? 1.0 : depth->second;

    if (GetIntOption("CONNECTION") != CONNECTION_USB) {
        LOG_DEBUG("NOT USB Connection");
        // Pixel counts measured by the network transport become a millimetre
        // rectangle anchored at the origin. No resolution means no rectangle.
        if (iCurrentDPI != 0.0) {
            iCurrentBrx = std::round(MM_PER_INCH * GetIntOption("WIDTH_SCAN") / iCurrentDPI);
            iCurrentBry = std::round(MM_PER_INCH * GetIntOption("HEIGHT_SCAN") / iCurrentDPI);
        }
    } else {
        LOG_DEBUG("USB Connection");
        auto take = [this](const char* key, double& operand) {
            auto it = DoubleOptions.find(key);
            if (it != DoubleOptions.end()) operand = it->second;
        };
        take("CURRENTTLX", iCurrentTlx);
        take("CURRENTBRX", iCurrentBrx);
        take("CURRENTTLY", iCurrentTly);
        take("CURRENTBRY", iCurrentBry);
    }
    LOG_DEBUG("convenience variable current tlx: %d", toInt(iCurrentTlx));
    LOG_DEBUG("convenience variable current tly: %d", toInt(iCurrentTly));
    LOG_DEBUG("convenience variable current brx: %d", toInt(iCurrentBrx));
    LOG_DEBUG("convenience variable current bry: %d", toInt(iCurrentBry));
    LOG_METHOD_END();
}

double ConfigReader::toPixels(double mm) const { return mm / MM_PER_INCH * iCurrentDPI; }

int ConfigReader::computePixelsPerLine() {
    SetUpOperands();
    int depth = GetIntOption("COLORDEPTH");
    LOG_DEBUG("color depth = %d", depth);

    int source = GetIntOption("SCAN_SOURCE");
    bool limited = true;
    double limit = 0.0;
    if (source == SCAN_SOURCE_FLATBED)
        limit = GetDoubleOption("FLATBEDWIDTHLIMIT");
    else if (source == SCAN_SOURCE_ADF)
        limit = GetDoubleOption("ADFWIDTHLIMIT");
    else
        limited = false;  // an unknown source has no width limit

    double w = toPixels(iCurrentBrx - iCurrentTlx);
    int value = GetIntOption("BOXKIND") == BOXKIND_CUT ? floorToInt(w) : roundToInt(w);
    if (!limited) return value;

    int maxPixels = floorToInt(iCurrentDPI * limit);
    LOG_DEBUG("max pixelsperline = %d", maxPixels);
    // A missing limit (0) clamps every positive width to 0: intended, the limits
    // must come from the feature file or the device.
    return value > maxPixels ? maxPixels : value;
}

int ConfigReader::computeBytesPerLine() {
    if (GetIntOption("CONNECTION") != CONNECTION_USB) return GetIntOption("SCANWIDTH");
    SetUpOperands();
    int depth = GetIntOption("COLORDEPTH");
    // Neither the width limit nor BOXKIND applies here, unlike PIXELS_PER_LINE: intended.
    double b = toPixels(iCurrentBrx - iCurrentTlx);
    if (depth == COLOR_DEPTH_BW)
        b = b / BITS_PER_BYTE;
    else if (depth == COLOR_DEPTH_COLOR)
        b = b * BYTES_PER_COLOR_PIXEL;
    else if (depth != COLOR_DEPTH_GRAY)
        LOG_DEBUG("Illegal Option!");
    return roundToInt(b);
}

int ConfigReader::GetComputedOption(const char* key) {
    if (key == nullptr) return 0;
    int result = 0;
    if (strcmp(key, "SCANOFFSETX") == 0) {
        SetUpOperands();
        result = roundToInt(toPixels(iCurrentTlx));
    } else if (strcmp(key, "SCANOFFSETY") == 0) {
        SetUpOperands();
        result = roundToInt(toPixels(iCurrentTly));
    } else if (strcmp(key, "SCANWIDTH") == 0) {
        // Uses the operands as last refreshed, unlike SCANHEIGHT: intended.
        // Over USB this is the right edge in pixels, not the width.
        if (GetIntOption("CONNECTION") == CONNECTION_USB)
            result = roundToInt(toPixels(iCurrentBrx));
        else
            result = GetIntOption("WIDTH_SCAN");
    } else if (strcmp(key, "SCANHEIGHT") == 0) {
        if (GetIntOption("CONNECTION") == CONNECTION_USB) {
            SetUpOperands();
            result = roundToInt(toPixels(iCurrentBry));  // the bottom edge in pixels
        } else {
            result = GetIntOption("HEIGHT_SCAN");
        }
    } else if (strcmp(key, "PIXELS_PER_LINE") == 0) {
        result = computePixelsPerLine();
    } else if (strcmp(key, "LINES") == 0) {
        if (GetIntOption("CONNECTION") == CONNECTION_USB) {
            SetUpOperands();
            double h = toPixels(iCurrentBry - iCurrentTly);
            result = GetIntOption("BOXKIND") == BOXKIND_CUT ? floorToInt(h) : roundToInt(h);
        } else {
            result = GetIntOption("SCANHEIGHT");
        }
    } else if (strcmp(key, "BYTES_PER_LINE") == 0) {
        result = computeBytesPerLine();
    } else {
        LOG_DEBUG("not a computed option");
        return 0;
    }
    LOG_DEBUG("Computed option: %s = %d", key, result);
    return result;
}

void ConfigReader::DisplayConfig() {
    LOG_METHOD_START();
    LOG_DEBUG("Display Config Options");
    LOG_DEBUG("Integer Options");
    for (const auto& kv : IntOptions) LOG_DEBUG("%s = %d", kv.first.c_str(), kv.second);
    LOG_DEBUG("Double Options");
    for (const auto& kv : DoubleOptions) LOG_DEBUG("%s = %f", kv.first.c_str(), kv.second);
    LOG_DEBUG("String Options");
    for (const auto& kv : StringOptions) LOG_DEBUG("%s = %s", kv.first.c_str(), kv.second.c_str());
    LOG_METHOD_END();
}

void ConfigReader::DisplayComputedValues() {
    LOG_METHOD_START();
    LOG_DEBUG("Display Computed Values:");
    // Each read logs its own result.
    static const char* const KEYS[] = {"SCANOFFSETX",     "SCANOFFSETY", "SCANWIDTH",     "SCANHEIGHT",
                                       "PIXELS_PER_LINE", "LINES",       "BYTES_PER_LINE"};
    for (const char* key : KEYS) GetIntOption(key);
    LOG_METHOD_END();
}
