#include <platform/SharedLibrary.h>

#include <dlfcn.h>

namespace ndpx::platform {

bool SharedLibrary::load(const std::string& path, std::string& error) {
    unload();
    // RTLD_LOCAL: modules that use the same names must not bind to each other.
    handle_ = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle_ == nullptr) {
        const char* reason = ::dlerror();
        error = reason != nullptr ? reason : "dlopen failed";
        return false;
    }
    return true;
}

void* SharedLibrary::symbol(const char* name) const {
    return handle_ != nullptr ? ::dlsym(handle_, name) : nullptr;
}

void SharedLibrary::unload() noexcept {
    if (handle_ != nullptr) {
        ::dlclose(std::exchange(handle_, nullptr));
    }
}

bool moduleContaining(const void* address, LoadedModule& module) {
    Dl_info info{};
    if (::dladdr(address, &info) == 0) {
        return false;
    }
    module.base = info.dli_fbase;
    module.path = info.dli_fname != nullptr ? info.dli_fname : "";
    return true;
}

}  // namespace ndpx::platform
