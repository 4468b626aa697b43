#include "korvane/frame/type_name.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>

namespace korvane::common {

std::string mangledTypeName(const std::type_info& type) {
    const char* name = type.name();
    return std::string(name[0] == '*' ? name + 1 : name);
}

std::string demangledTypeName(const std::type_info& type) {
    std::string mangled = mangledTypeName(type);
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> readable(abi::__cxa_demangle(mangled.c_str(), nullptr, nullptr, &status),
                                                    std::free);
    return status == 0 && readable ? std::string(readable.get()) : mangled;
}

}  // namespace korvane::common
