#include "sources/NDILibrary.h"

#include <dlfcn.h>
#include <filesystem>
#include <unistd.h>

namespace quorva {

namespace {

namespace fs = std::filesystem;

bool FileExists(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0;
}

std::string Joined(const std::vector<std::string>& parts, const char* separator) {
    std::string joined;
    for (const std::string& part : parts)
        joined += (joined.empty() ? "" : separator) + part;
    return joined;
}

std::string ProgramFolder() {
    std::error_code error;
    fs::path program = fs::read_symlink("/proc/self/exe", error);
    return error ? std::string() : program.parent_path().string();
}

std::map<std::string, std::string> ProcessEnvironment() {
    std::map<std::string, std::string> environment;
    for (const char* name : {"QUORVA_NDI_LIBRARY", "NDI_RUNTIME_DIR_V6"}) {
        if (const char* value = std::getenv(name))
            environment[name] = value;
    }
    return environment;
}

} // namespace

std::shared_ptr<const NDILibrary> NDILibrary::sharedLibrary() {
    static const std::shared_ptr<const NDILibrary> shared =
        chooseFrom(candidatePaths(ProcessEnvironment(), ProgramFolder()));
    return shared;
}

std::vector<std::string> NDILibrary::candidatePaths(const std::map<std::string, std::string>& environment,
                                                    const std::string& programFolder) {
    auto value = [&](const char* name) {
        auto found = environment.find(name);
        return found == environment.end() ? std::string() : found->second;
    };
    if (std::string chosen = value("QUORVA_NDI_LIBRARY"); !chosen.empty())
        return {chosen};
    std::vector<std::string> paths;
    // A copy of the runtime placed with the program wins over one installed for every program.
    if (!programFolder.empty())
        paths.push_back((fs::path(programFolder) / FileName).string());
    if (std::string folder = value("NDI_RUNTIME_DIR_V6"); !folder.empty())
        paths.push_back((fs::path(folder) / FileName).string());
    paths.push_back(std::string("/usr/local/lib/") + FileName);
#ifdef QUORVA_LIBRARY_ARCHITECTURE
    paths.push_back(std::string("/usr/lib/" QUORVA_LIBRARY_ARCHITECTURE "/") + FileName);
#endif
    paths.push_back(std::string("/usr/lib/") + FileName);
    return paths;
}

std::shared_ptr<const NDILibrary> NDILibrary::chooseFrom(const std::vector<std::string>& candidates) {
    std::shared_ptr<const NDILibrary> firstUnavailable;
    for (const std::string& path : candidates) {
        if (!FileExists(path))
            continue;
        auto library = makeWithPath(path);
        if (library->isAvailable())
            return library;
        // The first reason is the one that counts: it is where the user most likely meant the runtime to be.
        if (!firstUnavailable)
            firstUnavailable = library;
    }
    if (firstUnavailable)
        return firstUnavailable;
    return makeWithReason(std::string(FileName) + " was not found in " + Joined(candidates, ", "));
}

std::shared_ptr<const NDILibrary> NDILibrary::makeWithPath(const std::string& path) {
    if (path.empty())
        return makeWithReason(std::string(FileName) + " was not found");
    void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        if (!FileExists(path))
            return makeWithReason(std::string(FileName) + " was not found at " + path);
        const char* error = ::dlerror();
        return makeWithReason(path + " is not an NDI library (" + (error ? error : "it does not load") + ")");
    }
    using Load = const void* (*)();
    auto load = reinterpret_cast<Load>(::dlsym(handle, "NDIlib_v5_load"));
    const void* table = load ? load() : nullptr;
    if (!table) {
        ::dlclose(handle);
        return makeWithReason(path + " is not an NDI library");
    }
    // From here on the handle stays open for the life of the process: NDI is never shut down.
    const ndi::Functions functions(table);
    if (!functions.isSupportedCPU() || !functions.initialize())
        return makeWithReason("this computer cannot run NDI");
    std::shared_ptr<NDILibrary> library(new NDILibrary());
    library->_functions = functions;
    library->_available = true;
    library->_path = path;
    const char* version = functions.version();
    library->_version = version ? version : "";
    return library;
}

std::shared_ptr<const NDILibrary> NDILibrary::makeWithReason(std::string reason) {
    std::shared_ptr<NDILibrary> library(new NDILibrary());
    library->_reason = std::move(reason);
    return library;
}

} // namespace quorva
