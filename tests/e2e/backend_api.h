// The SANE entry points of the built backend, as the end-to-end tests use them.
#ifndef QUARTO_E2E_BACKEND_API_H
#define QUARTO_E2E_BACKEND_API_H

#include "backendlib.h"

#include <dlfcn.h>

namespace e2e {

using BackendApi = qt::SaneApi;

template <typename F>
bool bindSymbol(void* lib, const char* name, F& fn) {
    fn = reinterpret_cast<F>(dlsym(lib, name));
    return fn != nullptr;
}

}  // namespace e2e

#endif
