#include "RawDataHandler.h"

#include <string>

#include "ConfigReader.h"
#include "IMBGRtoRGB.h"
#include "IMColorCorrect.h"
#include "IMSideFlip.h"
#include "ImageData.h"

namespace {

// A table name ends in "<bar>.ext" with a four-character extension such as ".bin".
const size_t SCANBAR_DIGIT_FROM_END = 5;
const char* const LUT_KEYS[] = {"COLORLUT", "GRAYLUT"};

}  // namespace

RawDataHandler::RawDataHandler() = default;
RawDataHandler::~RawDataHandler() = default;

IManipulation* RawDataHandler::GetManipulation(int index) const {
    return (index >= 0 && index < (int)IM.size()) ? IM[index].get() : nullptr;
}

void RawDataHandler::SetUp(ConfigReader* config) {
    LOG_METHOD_START();
    IM.clear();
    if (config == nullptr) {
        LOG_METHOD_END();
        return;
    }
    if (config->GetIntOption("BGRTORGB") != 0) {
        IM.emplace_back(new IMBGRtoRGB());
        LOG_DEBUG("BGR to RGB object created.");
    }
    if (config->GetIntOption("FLATBEDSIDEFLIP") != 0 || config->GetIntOption("ADFSIDEFLIP") != 0) {
        IM.emplace_back(new IMSideFlip());
        LOG_DEBUG("SideFlip object created.");
    }
    if (config->GetIntOption("COLORCORRECT") != 0) {
        CheckForMultipleScanbars(config);
        IM.emplace_back(new IMColorCorrect(config->GetStringOption("SCLIB"), config->GetStringOption("SCFUNC"),
                                           config->GetStringOption("COLORLUT"),
                                           config->GetStringOption("GRAYLUT")));
        LOG_DEBUG("Color Correct object created.");
    }
    LOG_METHOD_END();
}

int RawDataHandler::CheckForMultipleScanbars(ConfigReader* config) {
    LOG_METHOD_START();
    int bar = config != nullptr ? config->GetIntOption("SCANBARID") : 0;
    if (bar != 0) {
        // Only the first character of the number is used, so bar 12 selects table 1: intended.
        const char digit = std::to_string(bar)[0];
        for (const char* key : LUT_KEYS) {
            const char* value = config->GetStringOption(key);
            if (value == nullptr) continue;
            std::string path(value);
            if (path.size() < SCANBAR_DIGIT_FROM_END) continue;
            path[path.size() - SCANBAR_DIGIT_FROM_END] = digit;
            config->SetStringOption(key, path.c_str());
        }
    }
    LOG_METHOD_END_INT(0);
    return 0;
}

int RawDataHandler::Perform(ImageData* image) {
    if (image == nullptr) return 0;
    int size = image->GetRawDataSize();
    if (!IM.empty()) {
        const int stride = image->GetStride();
        if (stride <= 0 || size < stride) return 0;
        size -= size % stride;
        for (auto& manipulation : IM) manipulation->Perform(image, size);
    }
    // Without a chain every raw byte, a partial line included, is ready at once.
    image->SetProcessedDataSize(size);
    return 1;
}
