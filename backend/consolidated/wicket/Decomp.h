// The abstract decompressor of the image pipeline.
#ifndef QUARTO_DECOMP_H
#define QUARTO_DECOMP_H

class CDecomp {
public:
    static constexpr int DECOMP_DONE = 1;
    static constexpr int DECOMP_ERROR = -1;
    static constexpr int DECOMP_LINE_COMPLETED = 2;
    static constexpr int DECOMP_ERROR_MORE_DATA = 3;

    virtual ~CDecomp();
    virtual int StartDecomp(int width, int height, int channels, int bitsPerPixel);
    virtual int EndDecomp();
    virtual int Decomp(unsigned char* in, int inLen, int* consumed, unsigned char* out, int outLen,
                       int* produced) = 0;
    virtual int SetQualityFactor(int quality);
    virtual int GetMaxLinesPerBand();

    // Padding per output line computed by StartDecomp.
    int GetNumPadBytesPerLine() const { return m_iNumPadBytesPerLine; }

protected:
    int m_iNumPadBytesPerLine = 0;
};

#endif
