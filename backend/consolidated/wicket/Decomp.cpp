#include "Decomp.h"

CDecomp::~CDecomp() = default;

int CDecomp::StartDecomp(int, int, int, int) { return DECOMP_DONE; }

int CDecomp::EndDecomp() { return DECOMP_DONE; }

int CDecomp::SetQualityFactor(int) { return DECOMP_DONE; }

int CDecomp::GetMaxLinesPerBand() { return 1; }
