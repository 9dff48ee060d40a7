// Command version 402: the 401 settings plus mirror, negative, colour dropout
// and background removal in the start request.
#ifndef QUARTO_CMD402_H
#define QUARTO_CMD402_H

#include "Cmd326.h"

class Cmd402 : public virtual Cmd326 {
public:
    Cmd402();
    ~Cmd402() override;
    int getCommand(unsigned char** out, int* len) override;
    int appendData(unsigned char** buf) override;
};

#endif
