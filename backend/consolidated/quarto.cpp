// Exported SANE entry points. Each one only forwards to the sane_ScanLib_ layer;
// no exception may cross into the front end.
#include "quarto.h"

#include <new>

#include "SaneInterface.h"

#define QUARTO_GUARD_STATUS(call)                 \
    try {                                         \
        return call;                              \
    } catch (const std::bad_alloc&) {             \
        return SANE_STATUS_NO_MEM;                \
    } catch (...) {                               \
        return SANE_STATUS_IO_ERROR;              \
    }

#define QUARTO_GUARD_VOID(call) \
    try {                       \
        call;                   \
    } catch (...) {             \
    }

extern "C" {

SANE_Status sane_quarto_init(SANE_Int* version_code, SANE_Auth_Callback authorize) {
    QUARTO_GUARD_STATUS(sane_ScanLib_init(version_code, authorize))
}

void sane_quarto_exit(void) { QUARTO_GUARD_VOID(sane_ScanLib_exit()) }

SANE_Status sane_quarto_get_devices(const SANE_Device*** device_list, SANE_Bool local_only) {
    QUARTO_GUARD_STATUS(sane_ScanLib_get_devices(device_list, local_only))
}

SANE_Status sane_quarto_open(SANE_String_Const devicename, SANE_Handle* handle) {
    QUARTO_GUARD_STATUS(sane_ScanLib_open(devicename, handle))
}

void sane_quarto_close(SANE_Handle handle) { QUARTO_GUARD_VOID(sane_ScanLib_close(handle)) }

const SANE_Option_Descriptor* sane_quarto_get_option_descriptor(SANE_Handle handle, SANE_Int option) {
    try {
        return sane_ScanLib_get_option_descriptor(handle, option);
    } catch (...) {
        return nullptr;
    }
}

SANE_Status sane_quarto_control_option(SANE_Handle handle, SANE_Int option, SANE_Action action,
                                       void* value, SANE_Int* info) {
    QUARTO_GUARD_STATUS(sane_ScanLib_control_option(handle, option, action, value, info))
}

SANE_Status sane_quarto_get_parameters(SANE_Handle handle, SANE_Parameters* params) {
    QUARTO_GUARD_STATUS(sane_ScanLib_get_parameters(handle, params))
}

SANE_Status sane_quarto_start(SANE_Handle handle) { QUARTO_GUARD_STATUS(sane_ScanLib_start(handle)) }

SANE_Status sane_quarto_read(SANE_Handle handle, SANE_Byte* data, SANE_Int max_length, SANE_Int* length) {
    QUARTO_GUARD_STATUS(sane_ScanLib_read(handle, data, max_length, length))
}

void sane_quarto_cancel(SANE_Handle handle) { QUARTO_GUARD_VOID(sane_ScanLib_cancel(handle)) }

SANE_Status sane_quarto_set_io_mode(SANE_Handle handle, SANE_Bool non_blocking) {
    QUARTO_GUARD_STATUS(sane_ScanLib_set_io_mode(handle, non_blocking))
}

SANE_Status sane_quarto_get_select_fd(SANE_Handle handle, SANE_Int* fd) {
    QUARTO_GUARD_STATUS(sane_ScanLib_get_select_fd(handle, fd))
}

}  // extern "C"
