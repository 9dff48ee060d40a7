// The thirteen SANE entry points of the BUILT backend, loaded with dlopen as a
// front end loads it: the session finds its configuration file through the
// library's own file name. Whatever libusb-0.1 the process already holds (the
// simulator, linked into every test) is the one the backend binds to.
#ifndef QUARTO_BACKENDLIB_H
#define QUARTO_BACKENDLIB_H

#include <dlfcn.h>
#include <sane/sane.h>

#include <cstdio>
#include <string>
#include <vector>

#include "testutil.h"

namespace qt {

struct SaneApi {
    void* pLib = nullptr;
    bool ok = false;
    SANE_Status (*init)(SANE_Int*, SANE_Auth_Callback) = nullptr;
    void (*exit)() = nullptr;
    SANE_Status (*get_devices)(const SANE_Device***, SANE_Bool) = nullptr;
    SANE_Status (*open)(SANE_String_Const, SANE_Handle*) = nullptr;
    void (*close)(SANE_Handle) = nullptr;
    const SANE_Option_Descriptor* (*get_option_descriptor)(SANE_Handle, SANE_Int) = nullptr;
    SANE_Status (*control_option)(SANE_Handle, SANE_Int, SANE_Action, void*, SANE_Int*) = nullptr;
    SANE_Status (*get_parameters)(SANE_Handle, SANE_Parameters*) = nullptr;
    SANE_Status (*start)(SANE_Handle) = nullptr;
    SANE_Status (*read)(SANE_Handle, SANE_Byte*, SANE_Int, SANE_Int*) = nullptr;
    void (*cancel)(SANE_Handle) = nullptr;
    SANE_Status (*set_io_mode)(SANE_Handle, SANE_Bool) = nullptr;
    SANE_Status (*get_select_fd)(SANE_Handle, SANE_Int*) = nullptr;

    // Loads build*/backend/libsane-quarto.so.1 and binds every entry point;
    // false (with a message on standard error) when anything is missing.
    bool load() {
        std::string path = binaryDir() + "/backend/libsane-quarto.so.1";
        pLib = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (pLib == nullptr) {
            fprintf(stderr, "dlopen %s: %s\n", path.c_str(), dlerror());
            return ok = false;
        }
        ok = bind(init, "sane_quarto_init") & bind(exit, "sane_quarto_exit") &
             bind(get_devices, "sane_quarto_get_devices") & bind(open, "sane_quarto_open") &
             bind(close, "sane_quarto_close") & bind(get_option_descriptor, "sane_quarto_get_option_descriptor") &
             bind(control_option, "sane_quarto_control_option") &
             bind(get_parameters, "sane_quarto_get_parameters") & bind(start, "sane_quarto_start") &
             bind(read, "sane_quarto_read") & bind(cancel, "sane_quarto_cancel") &
             bind(set_io_mode, "sane_quarto_set_io_mode") & bind(get_select_fd, "sane_quarto_get_select_fd");
        return ok;
    }

    // Reads a frame until a status other than GOOD (at most maxCalls reads, so
    // that a fault cannot hang a test) and returns that status; the bytes are
    // appended to data, and every read's status and length to the lists given.
    // Returns GOOD when the reads ran out.
    SANE_Status readFrame(SANE_Handle h, int maxLen, std::vector<unsigned char>* data, long maxCalls,
                          std::vector<SANE_Status>* statuses = nullptr, std::vector<int>* lengths = nullptr) const {
        std::vector<unsigned char> buf(maxLen > 0 ? (size_t)maxLen : 1);
        for (long i = 0; i < maxCalls; ++i) {
            SANE_Int len = -1;
            SANE_Status s = read(h, buf.data(), maxLen, &len);
            if (statuses) statuses->push_back(s);
            if (lengths) lengths->push_back(len);
            if (len > 0) data->insert(data->end(), buf.begin(), buf.begin() + len);
            if (s != SANE_STATUS_GOOD) return s;
        }
        return SANE_STATUS_GOOD;
    }

    // Unloads the library, so that a later load starts with fresh process state.
    void unload() {
        if (pLib != nullptr) dlclose(pLib);
        pLib = nullptr;
        ok = false;
    }

private:
    template <typename F>
    bool bind(F& fn, const char* name) {
        fn = reinterpret_cast<F>(dlsym(pLib, name));
        if (fn == nullptr) fprintf(stderr, "missing entry point %s\n", name);
        return fn != nullptr;
    }
};

}  // namespace qt

#endif
