#include "Cmd500.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "ConfigReader.h"
#include "util.h"

namespace {
// Escape header of each image data block and the bytes its length counts beyond the payload.
const int STRIP_SIZE = 31;
const int STRIP_MIN = 23;
const unsigned char CMD500_HEADERS[CMD500_ID_COUNT][CMD_HEADER_LEN] = {
    {0x1B, 0x53, 0x0F, 0x00, 0x00, 0x00, 0x00, 0x00},
    {0x1B, 0x53, 0x04, 0x00, 0x00, 0x00, 0x80, 0x00},
    {0x1B, 0x53, 0x03, 0x00, 0x00, 0x00, 0x80, 0x00},
    {0x1B, 0x53, 0x05, 0x00, 0x00, 0x00, 0x80, 0x00},
    {0x1B, 0x53, 0x01, 0x00, 0x00, 0x00, 0x80, 0x00},
    {0x1B, 0x53, 0x06, 0x00, 0x00, 0x00, 0x80, 0x00},
    {0x1B, 0x44, 0x04, 0x00, 0x00, 0x00, 0x80, 0x00},
    {0x1B, 0x53, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00},
    {0x1B, 0x53, 0x0B, 0x00, 0x00, 0x00, 0x80, 0x00},
    {0x1B, 0x53, 0x0A, 0x00, 0x00, 0x00, 0x80, 0x00},
};
const int CMD500_LEN = 44;
const int SCAN_LOCK_DATA_LEN = (int)sizeof(ST_SCAN_LOCK_REQ_DATA_PART);
const int GET_SCAN_PARAM_DATA_LEN = (int)sizeof(ST_GET_SCAN_PARAM_REQ_DATA_PART);

// Device source codes in the scan-lock record.
const int SOURCE_FLATBED = 1;
const int SOURCE_ADF = 4;
// Feeder states handed to prepareScanCommand.
const int ADF_NONE = 0;
const int ADF_EMPTY = 1;
const int ADF_LOADED = 2;
// Colour codes of getColorDepthFromScanParam.
const int PARAM_COLOR_LINEART = 2;
const int PARAM_COLOR_OTHER = 3;
const int COMPRESSION_BOX_KIND = 1;
const int COMPRESSION_QUALITY = 75;
const int BACKGROUND_REMOVAL_OFF = 1;  // device background_removal value meaning "off"

// Resolution of a dpi_and_size index (low 4 bits); everything else is 150.
int dpiFromIndex(int index) {
    switch (index) {
    case 1: return 75;
    case 3: return 300;
    case 4: return 600;
    case 5: return 1200;
    case 6: return 2400;
    case 7: return 4800;
    default: return 150;
    }
}

// ORIGINALSIZE of a device scan_size; 0 for unknown sizes. Sizes 9 and 15
// both give 13: intended.
int originalSizeFromScanSize(int scanSize) {
    static const int MAP[23] = {0, 0, 6, 3, 4, 5, 11, 9, 10, 13, 14, 15,
                                16, 2, 12, 13, 17, 19, 23, 8, 1, 24, 7};
    return (scanSize >= 0 && scanSize < 23) ? MAP[scanSize] : 0;
}

// Record filtering_type of a device filtering_type, -1 for unmapped values.
int filterFromDevice(int deviceFilter) {
    static const int MAP[5] = {3, 2, 1, 5, 6};
    return (deviceFilter >= 0 && deviceFilter < 5) ? MAP[deviceFilter] : -1;
}

// Copies the *len bytes of *buf into a new malloc'ed block with extra zeroed
// bytes behind them, releases the old block and stores the new one.
unsigned char* growRequest(unsigned char** buf, int* len, int extra) {
    if (buf == nullptr || len == nullptr || *len < 0 || (*len > 0 && *buf == nullptr)) return nullptr;
    unsigned char* grown = (unsigned char*)malloc((size_t)(*len + extra));
    if (grown == nullptr) return nullptr;
    if (*len > 0) memcpy(grown, *buf, (size_t)*len);
    memset(grown + *len, 0, (size_t)extra);
    free(*buf);
    *buf = grown;
    return grown + *len;
}
}  // namespace

bool isDpiSubjectForCompression(int dpi) { return dpi == 75 || dpi == 1200; }

Cmd500::Cmd500() {
    setVersion(CMD_VERSION_500);
    setStripSize(STRIP_SIZE);
    setStripMin(STRIP_MIN);
    setCmdLen(CMD500_LEN);
    for (int i = 0; i < CMD500_ID_COUNT; ++i) appendDataHandlers[i] = nullptr;
    appendDataHandlers[CMD_ID_LOCK] = &Cmd500::appendDataScanLock;
    memcpy(aioEscCommandHeaders, CMD500_HEADERS, sizeof aioEscCommandHeaders);
    memset(scanParams, 0, sizeof scanParams);
    scanParamsFlag = 0;
}

Cmd500::~Cmd500() = default;

int Cmd500::getCommand(unsigned char** out, int* len) {
    LOG_METHOD_START();
    int id = getCommandId();
    LOG_DEBUG("id: %d", id);
    if (out == nullptr || len == nullptr) return CMD_ERR;
    // Id 10 passes the range but has no header of its own: refused as well.
    if (id < 0 || id > CMD500_MAX_ID || id >= CMD500_ID_COUNT) {
        *len = 0;
        return CMD_ERR;
    }
    unsigned char* buffer = (unsigned char*)malloc(CMD_HEADER_LEN);
    if (buffer == nullptr) {
        *len = 0;
        return CMD_ERR;
    }
    memcpy(buffer, aioEscCommandHeaders[id], CMD_HEADER_LEN);
    LOG_DEBUG("The header dumped is %2X", buffer[0]);
    int length = CMD_HEADER_LEN;
    if (appendData(&buffer, &length) == CMD_ERR) {
        free(buffer);
        *len = 0;
        return CMD_ERR;
    }
    writeLE16(buffer + 4, (unsigned)(length - CMD_HEADER_LEN) & 0xFFFF);
    if (getNpa() == 1) {
        unsigned char* wrapped = nullptr;
        int rc = addNPA(&wrapped, buffer, &length);
        free(buffer);
        if (rc != CMD_OK) {
            *len = 0;
            return CMD_ERR;
        }
        buffer = wrapped;
    }
    *out = buffer;
    *len = length;
    LOG_DEBUG("::::::::::::::: METHOD END ::::::::::::::: ret: %d; data size: %d", CMD_OK, length);
    return CMD_OK;
}

int Cmd500::appendData(unsigned char** buf, int* len) {
    int id = getCommandId();
    AppendDataHandler handler = (id >= 0 && id < CMD500_ID_COUNT) ? appendDataHandlers[id] : nullptr;
    if (handler == nullptr) {
        LOG_DEBUG(" Handler  null");
        return CMD_OK;
    }
    return handler(buf, len, this);
}

int Cmd500::appendDataGetScanParam(unsigned char** buf, int* len, Cmd500* /*cmd*/) {
    unsigned char* part = growRequest(buf, len, GET_SCAN_PARAM_DATA_LEN);
    if (part == nullptr) return CMD_ERR;
    reinterpret_cast<ST_GET_SCAN_PARAM_REQ_DATA_PART*>(part)->host_platform = CMD500_HOST_PLATFORM;
    *len += GET_SCAN_PARAM_DATA_LEN;
    return CMD_OK;
}

int Cmd500::appendDataScanLock(unsigned char** buf, int* len, Cmd500* cmd) {
    using ::logSelf;  // static member: log through the free logger
    if (cmd == nullptr) return CMD_ERR;
    unsigned char* part = growRequest(buf, len, SCAN_LOCK_DATA_LEN);
    if (part == nullptr) return CMD_ERR;
    cmd->iDataSize = 0;  // a new data stream follows

    int pixels = cmd->getPixelPerLine();
    int lines = cmd->getLines();
    int offsetX = cmd->getScanOffsetX();
    int offsetY = cmd->getScanOffsetY();
    int dpi = cmd->getCurrentDPI();
    int colorDepth = cmd->getColorDepth();
    int compression = cmd->getCompression();
    int compressionLevel = cmd->getCompressionLevel();
    int source = cmd->getSource();
    int filter = cmd->getFilter();
    int documentSource = cmd->getDocumentSource();

    ConfigReader* cr = cmd->getConfigReader();
    double widthLimit = 0.0;
    double heightLimit = 0.0;
    if (cr != nullptr) {
        // Only logged: the window is not clamped here.
        widthLimit = cr->GetDoubleOption(source != 0 ? "ADFWIDTHLIMIT" : "FLATBEDWIDTHLIMIT");
        heightLimit = cr->GetDoubleOption(source != 0 ? "ADFHEIGHTLIMIT" : "FLATBEDHEIGHTLIMIT");
    }
    LOG_DEBUG("Scan Width Limit = %d", (int)widthLimit);
    LOG_DEBUG("Scan Height Limit = %d", (int)heightLimit);
    LOG_DEBUG("Source = %d", source);
    LOG_DEBUG("Color Depth = %d", colorDepth);
    LOG_DEBUG("Compression = %d", compression);
    LOG_DEBUG("Compression Level = %d", compressionLevel);
    LOG_DEBUG("Filter = %d", filter);
    LOG_DEBUG("Scan Offset X = %d", offsetX);
    LOG_DEBUG("Scan Offset Y = %d", offsetY);
    LOG_DEBUG("Current DPI = %d", dpi);
    LOG_DEBUG("Pixels per Line = %d", pixels);
    LOG_DEBUG("Lines = %d", lines);

    ST_SCAN_LOCK_REQ_DATA_PART* rec = reinterpret_cast<ST_SCAN_LOCK_REQ_DATA_PART*>(part);
    rec->color_depth = (unsigned char)colorDepth;
    rec->compression_mode = (unsigned char)compression;
    rec->compression_level = (unsigned char)compressionLevel;
    rec->filtering_type = (unsigned char)filter;
    writeLE32(rec->width, (uint32_t)pixels);
    writeLE32(rec->height, (uint32_t)lines);
    writeLE32(rec->horizontal_offset, (uint32_t)offsetX);
    writeLE32(rec->vertical_offset, (uint32_t)offsetY);
    writeLE16(rec->horizontal_resolution, (unsigned)dpi & 0xFFFF);
    writeLE16(rec->vertical_resolution, (unsigned)dpi & 0xFFFF);
    rec->source = (unsigned char)source;
    int bkgFlag = 0;
    int bkgParam = 0;
    cmd->getBackgroundRemoval(&bkgFlag, &bkgParam);
    rec->background_removal_flag = (unsigned char)bkgFlag;
    rec->background_removal_param = (unsigned char)bkgParam;
    rec->brightness = (unsigned char)cmd->getBrightness();
    rec->contrast = (unsigned char)cmd->getContrast();
    rec->original_document_source = (unsigned char)documentSource;
    rec->sharpen = (unsigned char)cmd->getSharpness();
    LOG_DEBUG("scan source: %d", rec->source);

    applyDeviceScanParams(rec, cmd);
    *len += SCAN_LOCK_DATA_LEN;
    return CMD_OK;
}

const ST_GET_SCAN_PARAM_RESP_DATA_PART* Cmd500::deviceParams() const {
    return reinterpret_cast<const ST_GET_SCAN_PARAM_RESP_DATA_PART*>(scanParams + CMD_HEADER_LEN);
}

int Cmd500::applyDeviceScanParams(ST_SCAN_LOCK_REQ_DATA_PART* rec, Cmd500* cmd) {
    using ::logSelf;  // static member: log through the free logger
    if (rec == nullptr || cmd == nullptr || cmd->scanParamsFlag == 0) {
        LOG_DEBUG("no scan parameters from device");
        return 0;
    }
    LOG_DEBUG("overriding scan lock with scan parameters from device...");
    const ST_GET_SCAN_PARAM_RESP_DATA_PART* dev = cmd->deviceParams();
    LOG_DEBUG("memcopied scan params");
    LOG_DUMP(cmd->scanParams, (int)sizeof cmd->scanParams);
    LOG_DEBUG(">>>>>>>>>>>>>>casted back");
    LOG_DUMP(reinterpret_cast<const unsigned char*>(dev), (int)sizeof *dev);

    rec->color_depth = (unsigned char)cmd->getColorDepthFromScanParam();
    LOG_DEBUG("color depth to be sent: %d", rec->color_depth);
    // An unmapped device filter keeps the value from the option store.
    int filter = filterFromDevice(dev->filtering_type);
    if (filter >= 0) rec->filtering_type = (unsigned char)filter;
    rec->source = (dev->scan_source == 3 || dev->scan_source == 4) ? SOURCE_ADF : SOURCE_FLATBED;
    // mirror_image_mode .. color_dropout_threshold: seven bytes in the same order.
    memcpy(&rec->mirror_image_mode, &dev->mirror_image_mode, 7);
    if (dev->background_removal == BACKGROUND_REMOVAL_OFF) {
        rec->background_removal_flag = 0;
    } else {
        rec->background_removal_flag = 1;
        rec->background_removal_param = dev->background_removal;
    }
    rec->descreen = dev->descreen;
    LOG_DEBUG("requested brightness : %d, brightness used: %d", dev->brightness, dev->brightness);
    rec->brightness = dev->brightness;
    rec->contrast = dev->contrast;
    rec->original_document_source = dev->original_document_source;
    rec->color_temperature = dev->color_temperature;
    rec->color_saturation = dev->color_saturation;
    rec->color_balance_flag = dev->color_balance_flag;
    rec->color_balance_red = dev->color_balance_red;
    rec->color_balance_blue = dev->color_balance_blue;
    rec->color_balance_green = dev->color_balance_green;
    return 1;
}

int Cmd500::prepareScanCommand(unsigned char* params, int len, int adf) {
    scanParamsFlag = 1;
    LOG_DEBUG("raw scan params");
    if (params != nullptr && len > 0) LOG_DUMP(params, len);
    memset(scanParams, 0, sizeof scanParams);
    // A reply longer than the record keeps its first bytes; a shorter one leaves zeros.
    if (params != nullptr && len > 0)
        memcpy(scanParams, params, (size_t)(len < CMD500_SCAN_PARAMS_LEN ? len : CMD500_SCAN_PARAMS_LEN));
    ST_GET_SCAN_PARAM_RESP_DATA_PART* dev =
        reinterpret_cast<ST_GET_SCAN_PARAM_RESP_DATA_PART*>(scanParams + CMD_HEADER_LEN);
    ConfigReader* cr = getConfigReader();

    int dpiIndex = dev->dpi_and_size & 0x0F;
    int dpi = dpiFromIndex(dpiIndex);
    LOG_DEBUG("requested DPI index: %x, SaneInterface index: %d", dpiIndex, dpi);
    if (cr != nullptr) cr->SetIntOption("CURRENTDPI", dpi);

    if (adf == ADF_NONE)
        LOG_DEBUG("There is no ADF support.");
    else if (adf == ADF_EMPTY)
        LOG_DEBUG("No document(s) found on the ADF.");
    else if (adf == ADF_LOADED)
        LOG_DEBUG("Document(s) found on the ADF.");
    dev->scan_source = adf == ADF_LOADED ? SOURCE_ADF : SOURCE_FLATBED;

    LOG_DEBUG("requested filtering index: %d", dev->filtering_type);
    int originalSize = originalSizeFromScanSize(dev->scan_size);
    LOG_DEBUG("requested size index: %d, SaneInterface index: %d", dev->scan_size, originalSize);
    if (cr != nullptr) cr->SetIntOption("ORIGINALSIZE", originalSize);

    int paramDepth = getColorDepthFromScanParam();
    LOG_DEBUG("color depth from scan param: %d", paramDepth);
    int configDepth = (paramDepth == 1 || paramDepth == PARAM_COLOR_LINEART) ? 0 : 1;
    LOG_DEBUG("color depth for config: %d", configDepth);
    if (cr != nullptr) cr->SetIntOption("COLORDEPTH", configDepth);
    return 0;
}

int Cmd500::getColorDepthFromScanParam() {
    switch (deviceParams()->button_id) {
    case 2: case 12: case 14: case 15: case 16: case 17:
        return PARAM_COLOR_LINEART;
    default:
        return PARAM_COLOR_OTHER;
    }
}

int Cmd500::getDocumentSource() {
    int value = 0;
    ConfigReader* cr = getConfigReader();
    if (cr != nullptr) {
        value = cr->GetIntOption("DOCUMENTSOURCE");
        static const int MAP[10] = {0, 1, 2, 8, 3, 4, 5, 6, 7, 9};
        if (value >= 0 && value < 10) value = MAP[value];
    }
    LOG_DEBUG("DocumentSource = %d", value);
    return value;
}

int Cmd500::getBrightness() {
    int value = intOption("BRIGHTNESS") + (getBoxKind() != 0 ? 3 : 4);
    LOG_DEBUG("Brightness = %d", value);
    return value;
}

int Cmd500::getContrast() {
    int value = intOption("CONTRAST") + (getBoxKind() != 0 ? 3 : 0);
    LOG_DEBUG("Contrast = %d", value);
    return value;
}

int Cmd500::getSharpness() { return getBoxKind() != 0 ? 0 : 3; }

int Cmd500::getSource() {
    int value = 0;
    ConfigReader* cr = getConfigReader();
    if (cr != nullptr) value = cr->GetIntOption("SCAN_SOURCE") != 0 ? SOURCE_ADF : SOURCE_FLATBED;
    LOG_DEBUG("Source = %d", value);
    return value;
}

int Cmd500::getCompression() {
    int value = 0;
    ConfigReader* cr = getConfigReader();
    if (cr != nullptr) {
        int depth = cr->GetIntOption("COLORDEPTH");
        LOG_DEBUG("Wicket :: the color depth %d", depth);
        if (getBoxKind() == COMPRESSION_BOX_KIND && isDpiSubjectForCompression(getCurrentDPI()) && depth != 0)
            value = 1;
    }
    LOG_DEBUG("Compression = %d", value);
    return value;
}

int Cmd500::getCompressionLevel() {
    if (getConfigReader() == nullptr) {
        LOG_DEBUG("Compresson Level = %d", 0);  // spelling of this line kept as it stands
        return 0;
    }
    int value = (getBoxKind() == COMPRESSION_BOX_KIND && isDpiSubjectForCompression(getCurrentDPI()))
                    ? COMPRESSION_QUALITY
                    : 0;
    LOG_DEBUG("Compression Level = %d", value);
    return value;
}

int Cmd500::getBackgroundRemoval(int* flag, int* param) {
    if (flag == nullptr || param == nullptr) return CMD_ERR;
    bool boxKind = getBoxKind() != 0;
    *flag = 0;
    *param = boxKind ? 1 : 0;
    ConfigReader* cr = getConfigReader();
    if (cr != nullptr) {
        *param = cr->GetIntOption("BKGREMOVAL");
        LOG_DEBUG("initial BackgroundRemoval flag = %d, param = %d", *flag, *param);
        if (boxKind) {
            *flag = 0;
            if (*param == 0)
                *param = 1;
            else if (*param == 1)
                *param = 0;
            if (*param != 1) *flag = 1;
        } else {
            *flag = 1;
            if (*param >= -4 && *param <= -1)
                *param += 256;  // negative settings travel as their two's-complement byte
            else if (*param == 0)
                *flag = 0;
        }
    }
    LOG_DEBUG("BackgroundRemoval flag = %d, param = %d", *flag, *param);
    return CMD_OK;
}
