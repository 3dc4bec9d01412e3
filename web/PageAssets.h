// The page's files, compiled into the program from web/page/ at build time.
#pragma once

#include <cstddef>

namespace web {

struct PageAsset {
    const char* path;  // "/index.html"
    const unsigned char* data;
    std::size_t size;
};

extern const PageAsset kPageAssets[];
extern const std::size_t kPageAssetCount;

// By the file's extension; application/octet-stream when unknown.
const char* contentTypeOf(const char* path);

}  // namespace web
