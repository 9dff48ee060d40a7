// What SANE sees: the device list, the option table, option control and frame
// parameters. A SANE handle is a pointer to the ScanLib session itself.
#ifndef QUARTO_SANEINTERFACE_H
#define QUARTO_SANEINTERFACE_H

#include <sane/sane.h>

class ScanLib;

#define QUARTO_NUM_OPTIONS 27

// The option table (process-wide; one session at a time). GetListValues builds
// the device-dependent lists, InitOptions fills the 27 descriptors from them,
// UpdateOptions makes the option store recompute what depends on CURRENTDPI.
void GetListValues(ScanLib* session);
void InitOptions(ScanLib* session);
void UpdateOptions(ScanLib* session);
// Checks (and for a range clamps) a value against the descriptor's constraint;
// SANE_STATUS_INVAL when it is not allowed.
SANE_Status CheckValue(const SANE_Option_Descriptor* opt, void* value, SANE_Int* info);
// Position of text in a NULL-terminated list (exact comparison), or -1.
int search_string_list(const SANE_String_Const* list, const char* text);

// One device record from a raw transport name (the string is split in place).
// The record is heap-allocated; its strings live as long as the process.
SANE_Device* sane_ScanLib_make_device(char* raw);

SANE_Status sane_ScanLib_init(SANE_Int* version_code, SANE_Auth_Callback authorize);
void sane_ScanLib_exit(void);
SANE_Status sane_ScanLib_get_devices(const SANE_Device*** device_list, SANE_Bool local_only);
SANE_Status sane_ScanLib_open(SANE_String_Const devicename, SANE_Handle* handle);
void sane_ScanLib_close(SANE_Handle handle);
const SANE_Option_Descriptor* sane_ScanLib_get_option_descriptor(SANE_Handle handle, SANE_Int option);
SANE_Status sane_ScanLib_control_option(SANE_Handle handle, SANE_Int option, SANE_Action action, void* value,
                                        SANE_Int* info);
SANE_Status sane_ScanLib_get_parameters(SANE_Handle handle, SANE_Parameters* params);
SANE_Status sane_ScanLib_start(SANE_Handle handle);
SANE_Status sane_ScanLib_read(SANE_Handle handle, SANE_Byte* data, SANE_Int max_length, SANE_Int* length);
void sane_ScanLib_cancel(SANE_Handle handle);
SANE_Status sane_ScanLib_set_io_mode(SANE_Handle handle, SANE_Bool non_blocking);
SANE_Status sane_ScanLib_get_select_fd(SANE_Handle handle, SANE_Int* fd);

#endif
