#include "gaugepoint/platform/SharedLibrary.hpp"

#include <dlfcn.h>

namespace gaugepoint {

std::optional<SharedLibrary> SharedLibrary::open(std::initializer_list<const char*> names) {
    for (const char* name : names) {
        if (void* handle = ::dlopen(name, RTLD_NOW | RTLD_LOCAL)) return SharedLibrary{handle};
    }
    return std::nullopt;
}

void* SharedLibrary::symbol(const char* name) const { return ::dlsym(handle_, name); }

}  // namespace gaugepoint
