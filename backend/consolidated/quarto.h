// The thirteen exported SANE entry points; each forwards to sane_ScanLib_*.
#ifndef QUARTO_QUARTO_H
#define QUARTO_QUARTO_H

#include <sane/sane.h>

extern "C" {
SANE_Status sane_quarto_init(SANE_Int* version_code, SANE_Auth_Callback authorize);
void sane_quarto_exit(void);
SANE_Status sane_quarto_get_devices(const SANE_Device*** device_list, SANE_Bool local_only);
SANE_Status sane_quarto_open(SANE_String_Const devicename, SANE_Handle* handle);
void sane_quarto_close(SANE_Handle handle);
const SANE_Option_Descriptor* sane_quarto_get_option_descriptor(SANE_Handle handle, SANE_Int option);
SANE_Status sane_quarto_control_option(SANE_Handle handle, SANE_Int option, SANE_Action action,
                                       void* value, SANE_Int* info);
SANE_Status sane_quarto_get_parameters(SANE_Handle handle, SANE_Parameters* params);
SANE_Status sane_quarto_start(SANE_Handle handle);
SANE_Status sane_quarto_read(SANE_Handle handle, SANE_Byte* data, SANE_Int max_length, SANE_Int* length);
void sane_quarto_cancel(SANE_Handle handle);
SANE_Status sane_quarto_set_io_mode(SANE_Handle handle, SANE_Bool non_blocking);
SANE_Status sane_quarto_get_select_fd(SANE_Handle handle, SANE_Int* fd);
}

#endif
