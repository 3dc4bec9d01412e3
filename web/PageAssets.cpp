#include "web/PageAssets.h"

#include <cstring>

namespace web {

const char* contentTypeOf(const char* path)
{
    static const struct {
        const char* extension;
        const char* type;
    } kTypes[] = {
        {".html", "text/html; charset=utf-8"},
        {".css", "text/css; charset=utf-8"},
        {".js", "text/javascript; charset=utf-8"},
        {".svg", "image/svg+xml"},
        {".png", "image/png"},
        {".ico", "image/x-icon"},
        {".json", "application/json"},
    };
    const char* dot = std::strrchr(path, '.');
    for (const auto& t : kTypes) {
        if (dot != nullptr && std::strcmp(dot, t.extension) == 0) return t.type;
    }
    return "application/octet-stream";
}

}  // namespace web
