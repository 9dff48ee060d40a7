// The data block of a device properties reply (or scan sizes reply): protocol
// version, code set, compression, alignment, image-processing support bits,
// duplex support, supported original-document types, the scan sources and the
// custom scan sizes. Every read stays within the bytes held; a field that lies
// outside them reads as absent (-1, 0 or null, as each accessor says).
#ifndef QUARTO_CPROPS_H
#define QUARTO_CPROPS_H

#include <memory>
#include <vector>

#include "CLogger.h"
#include "CSources.h"

// The option table's list of document types: up to nine names (1024-byte
// malloc'ed strings) in the order the device reports them, followed by a
// slot that always stays NULL. GetSupportedOriginalTypes fills the first free
// slots; ClearSupportedOriginalTypes frees and empties the list. The session
// clears it when it closes, so no names outlive a session.
const int PSSD_USB_DOC_SOURCE_LIST_SIZE = 9;
const int PSSD_DOC_TYPE_NAME_LEN = 1024;
extern char* pssd_usb_doc_source_list[PSSD_USB_DOC_SOURCE_LIST_SIZE + 1];
void ClearSupportedOriginalTypes();

// Length of the extension fields of protocol major version 5 and higher.
const int PROPS_V5_OFFSET = 6;
const int PROPS_V5_MAJOR = 5;

class CProps : public CLogger {
public:
    CProps();
    ~CProps();

    // Copies the block and parses its source records; 2 for null input.
    // Records that do not fit in len bytes are not created.
    int setData(const unsigned char* block, int len);

    int getMajor();         // bytes 0-5; -1 when absent
    int getMinor();
    int getCodeset();
    int getCompression();
    int getAlignmentClr();
    int getAlignmentGry();
    // The device's source count, or fewer when the block is too short to hold
    // that many records (the missing ones are absent); -1 without the count.
    int getNumOfSources();
    CSources* getSource(int index);  // null past the end
    int ImageProcessingSupport();    // byte 6 for major 5+, else -1
    int OriginalDocumentSupport();   // byte 10 for major 5+, else -1

    int isMirrorImageModificationSupported();
    int isNegativeImageModificationSupported();
    int isColorDropoutSupported();
    int isDescreenSupported();
    int isTemperatureSupported();
    int isColorSaturationSupported();
    int isColorBalanceSupported();
    // These five test bits above the one support byte and so always answer 0.
    int isBackgroundRemovalSupported();
    int isPSSDBrightnessSupported();
    int isPSSDContrastSupported();
    int isISDBrightnessSupported();
    int isISDContrastSupported();
    int isDuplexSupported();

    // Appends the names of the type bits set in byte 10 to pssd_usb_doc_source_list.
    void GetSupportedOriginalTypes();

    // Scan sizes block readers.
    int getNumOfCustomSizes();        // byte 0, -1 when absent
    int getPaperNameLength(int pos);  // byte at pos, 0 when absent
    // A new zeroed 1024-byte array (delete[] it) with len bytes from pos; bytes
    // outside the block are left zero.
    char* getPaperName(int pos, int len);
    double customScanSizeWidth(int pos);   // 16-bit value / 1000.0, 0.0 when absent
    double customScanSizeLength(int pos);

private:
    int byteAt(long off);
    bool isVersion5();
    int supportBit(int bit);

    std::vector<std::unique_ptr<CSources>> sources;
    std::vector<unsigned char> pdata;
    int offset = 0;
};

#endif
