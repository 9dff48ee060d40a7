// Command version 500: eleven short escape requests chosen by the command id,
// with a 47-byte record of scan settings behind the scan-lock request. Scan
// parameters chosen on the device's panel (prepareScanCommand) override the
// option store in that record.
#ifndef QUARTO_CMD500_H
#define QUARTO_CMD500_H

#include "Cmd326.h"

// Scan-lock request data part, little-endian multi-byte fields (47 bytes).
struct ST_SCAN_LOCK_REQ_DATA_PART {
    unsigned char color_depth;
    unsigned char compression_mode;
    unsigned char compression_level;
    unsigned char filtering_type;
    unsigned char width[4];
    unsigned char height[4];
    unsigned char horizontal_offset[4];
    unsigned char vertical_offset[4];
    unsigned char horizontal_resolution[2];
    unsigned char vertical_resolution[2];
    unsigned char source;
    unsigned char duplex_mode;
    unsigned char mirror_image_mode;
    unsigned char negative_image_mode;
    unsigned char color_dropout_flag;
    unsigned char color_dropout_red;
    unsigned char color_dropout_blue;
    unsigned char color_dropout_green;
    unsigned char color_dropout_threshold;
    unsigned char background_removal_flag;
    unsigned char background_removal_param;
    unsigned char with_edits_flag;
    unsigned char descreen;
    unsigned char brightness;
    unsigned char contrast;
    unsigned char original_document_source;
    unsigned char sharpen;
    unsigned char color_temperature;
    unsigned char color_saturation;
    unsigned char color_balance_flag;
    unsigned char color_balance_red;
    unsigned char color_balance_blue;
    unsigned char color_balance_green;
};
static_assert(sizeof(ST_SCAN_LOCK_REQ_DATA_PART) == 47, "scan-lock record is 47 bytes");

// The device's scan parameters (reply to id 8, behind its 8-byte header).
struct ST_GET_SCAN_PARAM_RESP_DATA_PART {
    unsigned char dpi_and_size;  // low 4 bits: resolution index
    unsigned char rfu1;
    unsigned char rfu2;
    unsigned char scan_source;
    unsigned char button_id;
    unsigned char overwrite_flag;
    unsigned char file_type;
    unsigned char brightness;
    unsigned char photo_reprint;
    unsigned char copy_ones_to_twos;
    unsigned char quality;
    unsigned char scan_size;
    unsigned char filtering_type;
    unsigned char resize_option;
    unsigned char copies;
    unsigned char mirror_image_mode;
    unsigned char negative_image_mode;
    unsigned char color_dropout_flag;
    unsigned char color_dropout_red;
    unsigned char color_dropout_blue;
    unsigned char color_dropout_green;
    unsigned char color_dropout_threshold;
    unsigned char background_removal;
    unsigned char descreen;
    unsigned char contrast;
    unsigned char original_document_source;
    unsigned char sharpen;
    unsigned char color_temperature;
    unsigned char color_saturation;
    unsigned char color_balance_flag;
    unsigned char color_balance_red;
    unsigned char color_balance_blue;
    unsigned char color_balance_green;
    unsigned char duplex_mode;
};
static_assert(sizeof(ST_GET_SCAN_PARAM_RESP_DATA_PART) == 34, "scan-parameters record is 34 bytes");

// Get-scan-parameters request data part (16 bytes). No command id sends it.
struct ST_GET_SCAN_PARAM_REQ_DATA_PART {
    unsigned char host_platform;
    unsigned char size_default_file_save_path;
    unsigned char default_file_save_path[14];
};
static_assert(sizeof(ST_GET_SCAN_PARAM_REQ_DATA_PART) == 16, "get-scan-parameters request is 16 bytes");

const int CMD500_ID_COUNT = 10;        // ids 0-9 have a header
const int CMD500_MAX_ID = 10;          // the range getCommand checks
const int CMD500_SCAN_PARAMS_LEN = 92; // stored copy of the scan-parameters reply
const int CMD500_HOST_PLATFORM = 3;

// True for the resolutions at which the device compresses (75 and 1200 dpi).
bool isDpiSubjectForCompression(int dpi);

class Cmd500 : public virtual Cmd326 {
public:
    typedef int (*AppendDataHandler)(unsigned char** buf, int* len, Cmd500* cmd);

    Cmd500();
    ~Cmd500() override;

    // Header of the current id with its data part; *out receives a malloc'ed
    // block (free() it). Ids outside 0-9 are refused with 2.
    int getCommand(unsigned char** out, int* len) override;
    // Stores the device's scan-parameters reply (header included) and the
    // feeder state (0 none, 1 empty, 2 loaded) and sets CURRENTDPI,
    // ORIGINALSIZE and COLORDEPTH from it.
    int prepareScanCommand(unsigned char* params, int len, int adf) override;
    using Cmd326::appendData;
    // Replaces *buf (malloc'ed) by the request with the id's data part added.
    virtual int appendData(unsigned char** buf, int* len);
    virtual int getDocumentSource();
    virtual int getBrightness();
    virtual int getContrast();
    int getSource() override;
    int getCompression() override;
    int getCompressionLevel() override;
    virtual int getBackgroundRemoval(int* flag, int* param);
    virtual int getSharpness();

    // 2 for the panel buttons that scan line art, 3 for the others.
    int getColorDepthFromScanParam();

    static int appendDataScanLock(unsigned char** buf, int* len, Cmd500* cmd);
    static int appendDataGetScanParam(unsigned char** buf, int* len, Cmd500* cmd);
    // Lets stored device parameters override rec; 0 when there are none, else 1.
    static int applyDeviceScanParams(ST_SCAN_LOCK_REQ_DATA_PART* rec, Cmd500* cmd);

protected:
    const ST_GET_SCAN_PARAM_RESP_DATA_PART* deviceParams() const;

    AppendDataHandler appendDataHandlers[CMD500_ID_COUNT];
    unsigned char aioEscCommandHeaders[CMD500_ID_COUNT][CMD_HEADER_LEN];
    unsigned char scanParams[CMD500_SCAN_PARAMS_LEN];
    unsigned char scanParamsFlag = 0;
};

#endif
