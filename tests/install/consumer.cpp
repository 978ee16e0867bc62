// A runtime in miniature: compiled against the installed header, it loads the
// installed driver by its path, as a runtime does, and prints its version.
#include "ls_xbc_cpu_direct.h"

#include <cstdio>
#include <dlfcn.h>

#ifndef XBC_DRIVER
#error "XBC_DRIVER must name the installed driver library"
#endif

namespace {

using GetVersion = decltype(&intf_getVersion);

} // namespace

int main()
{
    void *library = dlopen(XBC_DRIVER, RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        std::fprintf(stderr, "consumer: cannot load %s: %s\n", XBC_DRIVER, dlerror());
        return 1;
    }
    const auto getVersion = reinterpret_cast<GetVersion>(dlsym(library, "intf_getVersion"));
    if (!getVersion) {
        std::fprintf(stderr, "consumer: %s exports no intf_getVersion\n", XBC_DRIVER);
        return 1;
    }
    std::printf("driver %s version %s\n", XBC_DRIVER, getVersion().toUtf8().constData());
    return 0;
}
