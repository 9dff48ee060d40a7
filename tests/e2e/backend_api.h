// The SANE entry points of the built backend, loaded with dlopen as a front
// end loads it: the session finds its configuration through the library's own
// file name. Whatever libusb-0.1 the process already holds (the simulator) is
// the one the backend binds to.
#ifndef QUARTO_E2E_BACKEND_API_H
#define QUARTO_E2E_BACKEND_API_H

#include <dlfcn.h>
#include <sane/sane.h>

#include <cstdio>
#include <string>

#include "testutil.h"

namespace e2e {

template <typename F>
bool bindSymbol(void* lib, const char* name, F& fn) {
    fn = reinterpret_cast<F>(dlsym(lib, name));
    return fn != nullptr;
}

struct BackendApi {
    SANE_Status (*open)(SANE_String_Const, SANE_Handle*) = nullptr;
    void (*close)(SANE_Handle) = nullptr;
    SANE_Status (*control_option)(SANE_Handle, SANE_Int, SANE_Action, void*, SANE_Int*) = nullptr;
    SANE_Status (*get_parameters)(SANE_Handle, SANE_Parameters*) = nullptr;
    SANE_Status (*start)(SANE_Handle) = nullptr;
    SANE_Status (*read)(SANE_Handle, SANE_Byte*, SANE_Int, SANE_Int*) = nullptr;
    void (*cancel)(SANE_Handle) = nullptr;

    // Loads build*/backend/libsane-quarto.so.1 (kept loaded); false with a
    // message on standard error when it or one of the entry points is missing.
    bool load() {
        std::string path = qt::binaryDir() + "/backend/libsane-quarto.so.1";
        void* lib = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (lib == nullptr) {
            fprintf(stderr, "dlopen %s: %s\n", path.c_str(), dlerror());
            return false;
        }
        return bindSymbol(lib, "sane_quarto_open", open) && bindSymbol(lib, "sane_quarto_close", close) &&
               bindSymbol(lib, "sane_quarto_control_option", control_option) &&
               bindSymbol(lib, "sane_quarto_get_parameters", get_parameters) &&
               bindSymbol(lib, "sane_quarto_start", start) && bindSymbol(lib, "sane_quarto_read", read) &&
               bindSymbol(lib, "sane_quarto_cancel", cancel);
    }
};

}  // namespace e2e

#endif
