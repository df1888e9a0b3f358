#pragma once

// A shared library loaded when it is first needed rather than at start, and its functions by
// name. For libraries that only some commands use and that would otherwise cost every run of
// the program their loading time (libcurl, libpq and what they bring with them).

#include <initializer_list>
#include <optional>

namespace gaugepoint {

class SharedLibrary {
public:
    // The first of `names` ("libpq.so.5", ...) that loads; none when none does. A loaded library
    // stays loaded for the life of the process.
    static std::optional<SharedLibrary> open(std::initializer_list<const char*> names);

    // Points `function` at the library's function `name`; false when it has none.
    template <class Function>
    bool bind(const char* name, Function& function) const {
        function = reinterpret_cast<Function>(symbol(name));
        return function != nullptr;
    }

private:
    explicit SharedLibrary(void* handle) : handle_(handle) {}
    void* symbol(const char* name) const;
    void* handle_;
};

}  // namespace gaugepoint
