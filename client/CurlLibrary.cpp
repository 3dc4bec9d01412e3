#include "client/CurlLibrary.h"

#include <dlfcn.h>

#include <mutex>
#include <string>

#include "client/ClientError.h"

namespace rsclient {

namespace {

// The soname the build's libcurl headers came with (Debian's GnuTLS flavour).
constexpr const char* kSoname = "libcurl-gnutls.so.4";

template <typename Function>
void resolve(void* library, const char* name, Function& function)
{
    function = reinterpret_cast<Function>(::dlsym(library, name));
    if (function == nullptr) {
        throw ClientError(ErrorKind::Failure, std::string(kSoname) + " has no " + name);
    }
}

CurlLibrary load()
{
    void* library = ::dlopen(kSoname, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        throw ClientError(ErrorKind::Failure,
                          std::string("cannot load libcurl for the devices: ") + ::dlerror());
    }
    CurlLibrary c{};
    resolve(library, "curl_easy_setopt", c.easy_setopt);
    resolve(library, "curl_easy_getinfo", c.easy_getinfo);
    resolve(library, "curl_easy_init", c.easy_init);
    resolve(library, "curl_easy_pause", c.easy_pause);
    resolve(library, "curl_easy_cleanup", c.easy_cleanup);
    resolve(library, "curl_easy_strerror", c.easy_strerror);
    resolve(library, "curl_multi_init", c.multi_init);
    resolve(library, "curl_multi_setopt", c.multi_setopt);
    resolve(library, "curl_multi_add_handle", c.multi_add_handle);
    resolve(library, "curl_multi_remove_handle", c.multi_remove_handle);
    resolve(library, "curl_multi_perform", c.multi_perform);
    resolve(library, "curl_multi_poll", c.multi_poll);
    resolve(library, "curl_multi_info_read", c.multi_info_read);
    resolve(library, "curl_multi_cleanup", c.multi_cleanup);
    resolve(library, "curl_slist_append", c.slist_append);
    resolve(library, "curl_slist_free_all", c.slist_free_all);
    resolve(library, "curl_url", c.url);
    resolve(library, "curl_url_set", c.url_set);
    resolve(library, "curl_url_get", c.url_get);
    resolve(library, "curl_url_cleanup", c.url_cleanup);
    resolve(library, "curl_free", c.free);
    CURLcode (*globalInit)(long) = nullptr;
    resolve(library, "curl_global_init", globalInit);
    if (globalInit(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
        throw ClientError(ErrorKind::Failure, "libcurl did not initialise");
    }
    return c;  // the library stays loaded for the process's life
}

}  // namespace

const CurlLibrary& curlLibrary()
{
    static std::once_flag once;
    static CurlLibrary library;
    std::call_once(once, [] { library = load(); });
    return library;
}

}  // namespace rsclient
