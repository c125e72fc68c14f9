#include <platform/SharedLibrary.h>

#include <dlfcn.h>

namespace ndpx::platform {
namespace {

// Under a sanitizer a module stays mapped after unload. The leak check runs
// at exit, and once a module and the libraries only it pulled in are gone
// their globals no longer count as roots and their frames have no names:
// whatever they still held is reported as an unnamed leak.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kKeepMapped = RTLD_NODELETE;
#else
constexpr int kKeepMapped = 0;
#endif

}  // namespace

bool SharedLibrary::load(const std::string& path, std::string& error, Residency residency) {
    unload();
    const int keep = residency == Residency::Permanent ? RTLD_NODELETE : kKeepMapped;
    // RTLD_LOCAL: modules that use the same names must not bind to each other.
    handle_ = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | keep);
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

std::string moduleFileName(const std::string& stem) {
    return stem + ".so";
}

}  // namespace ndpx::platform
