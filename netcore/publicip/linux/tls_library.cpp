#include "netcore/publicip/linux/tls_library.h"

#include <dlfcn.h>
#include <openssl/opensslv.h>

#include "netcore/publicip/linux/byte_stream.h"

namespace netvane {
namespace {

// The soname of the ABI the headers describe: a library of another major
// version would not match the structures and constants compiled in here.
#define NV_TLS_STRING(x) #x
#define NV_TLS_SONAME(version) "libssl.so." NV_TLS_STRING(version)
constexpr const char* kTLSLibraryName = NV_TLS_SONAME(OPENSSL_SHLIB_VERSION);

Error loadError(const std::string& what) {
    return Error{kTLSErrorDomain, 0, "The secure connection could not be set up: " + what};
}

}  // namespace

Result<TLSLibrary> loadTLSLibrary(const std::string& fileName) {
    // Never closed: the library keeps state (its error queues, its method
    // tables) for the rest of the process, as a linked one would.
    void* handle = ::dlopen(fileName.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        const char* reason = ::dlerror();
        return loadError("cannot load " + fileName + (reason ? std::string(": ") + reason : std::string()));
    }
    TLSLibrary library{};
    const char* missing = nullptr;
    // Looked up through the handle: libssl's own dependencies (libcrypto)
    // answer for the BIO, ERR and X509 functions.
#define NV_TLS_RESOLVE(name)                                                        \
    if (!missing) {                                                                 \
        library.name = reinterpret_cast<decltype(library.name)>(::dlsym(handle, #name)); \
        if (!library.name) missing = #name;                                         \
    }
    NV_TLS_FUNCTIONS(NV_TLS_RESOLVE)
#undef NV_TLS_RESOLVE
    if (missing) {
        ::dlclose(handle);
        return loadError(fileName + " has no " + missing);
    }
    return library;
}

Result<const TLSLibrary*> tlsLibrary() {
    // Never destroyed, as the library is never unloaded: objects of static
    // lifetime (the connector's context) free their TLS state at exit, after
    // a static table here would be gone.
    static const Result<TLSLibrary>* const loaded = new Result<TLSLibrary>(loadTLSLibrary(kTLSLibraryName));
    if (!*loaded) return loaded->error();
    return &**loaded;
}

}  // namespace netvane
