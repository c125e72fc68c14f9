#pragma once
// Code loaded at run time: a plug-in module opened by path, its exported
// symbols looked up by name, and the module a piece of loaded code lives in.

#include <string>
#include <utility>

namespace ndpx::platform {

// A loaded module, unloaded when its owner goes or at unload().
class SharedLibrary {
public:
    SharedLibrary() = default;
    ~SharedLibrary() { unload(); }
    SharedLibrary(SharedLibrary&& other) noexcept
        : handle_(std::exchange(other.handle_, nullptr)) {}
    SharedLibrary& operator=(SharedLibrary&& other) noexcept {
        if (this != &other) {
            unload();
            handle_ = std::exchange(other.handle_, nullptr);
        }
        return *this;
    }
    SharedLibrary(const SharedLibrary&) = delete;
    SharedLibrary& operator=(const SharedLibrary&) = delete;

    // Whether unload() may take the code out of the process. Never: it stays
    // mapped for the process's life (libraries that cannot be unloaded safely).
    enum class Residency { Unloadable, Permanent };

    // Loads `path`, binding all its symbols now and keeping them to itself.
    // False, with the system's reason in `error`, when it cannot be loaded.
    bool load(const std::string& path, std::string& error,
              Residency residency = Residency::Unloadable);
    bool loaded() const { return handle_ != nullptr; }
    // The address of the exported symbol `name`; null when there is none.
    void* symbol(const char* name) const;
    void unload() noexcept;

private:
    void* handle_ = nullptr;
};

// The loaded module that holds an address: where it starts in memory (the
// handle the module knows itself by) and its file.
struct LoadedModule {
    void* base = nullptr;
    std::string path;
};
// False when `address` lies in no loaded module.
bool moduleContaining(const void* address, LoadedModule& module);

// The file name of the module `stem` ("ndpx_http" -> "ndpx_http.so").
std::string moduleFileName(const std::string& stem);

}  // namespace ndpx::platform
