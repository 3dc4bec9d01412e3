// libcurl, loaded on first use: only a search on many devices needs it, and its TLS, HTTP/2,
// Kerberos and LDAP libraries cost a gateway that is not a hub a third of its memory at rest.
#pragma once

#define CURL_DISABLE_TYPECHECK
#include <curl/curl.h>

namespace rsclient {

struct CurlLibrary {
    CURLcode (*easy_setopt)(CURL*, CURLoption, ...);
    CURLcode (*easy_getinfo)(CURL*, CURLINFO, ...);
    CURL* (*easy_init)();
    CURLcode (*easy_pause)(CURL*, int);
    void (*easy_cleanup)(CURL*);
    const char* (*easy_strerror)(CURLcode);
    CURLM* (*multi_init)();
    CURLMcode (*multi_setopt)(CURLM*, CURLMoption, ...);
    CURLMcode (*multi_add_handle)(CURLM*, CURL*);
    CURLMcode (*multi_remove_handle)(CURLM*, CURL*);
    CURLMcode (*multi_perform)(CURLM*, int*);
    CURLMcode (*multi_poll)(CURLM*, curl_waitfd*, unsigned, int, int*);
    CURLMsg* (*multi_info_read)(CURLM*, int*);
    CURLMcode (*multi_cleanup)(CURLM*);
    curl_slist* (*slist_append)(curl_slist*, const char*);
    void (*slist_free_all)(curl_slist*);
    CURLU* (*url)();
    CURLUcode (*url_set)(CURLU*, CURLUPart, const char*, unsigned int);
    CURLUcode (*url_get)(const CURLU*, CURLUPart, char**, unsigned int);
    void (*url_cleanup)(CURLU*);
    void (*free)(void*);
};

// Loaded and initialised once, from any thread; throws ClientError when it cannot be.
const CurlLibrary& curlLibrary();

}  // namespace rsclient
