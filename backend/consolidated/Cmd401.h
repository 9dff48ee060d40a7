// Command version 401: the 326 requests plus the scan source in the settings.
#ifndef QUARTO_CMD401_H
#define QUARTO_CMD401_H

#include "Cmd326.h"

class Cmd401 : public virtual Cmd326 {
public:
    Cmd401();
    ~Cmd401() override;
    int getCommand(unsigned char** out, int* len) override;
    int appendData(unsigned char** buf) override;
};

#endif
