// Loads libtiff by the name (soname) of the library the tool was built against, once per process.
#include "platform/imageio/tiff_library.h"

#include <dlfcn.h>

#include <cstdio>

#include "platform/imageio/imageio.h"

namespace {

TiffLibrary library;
bool loaded = false;
const char *failure = nullptr;  // why the load failed, kept for every later call
char failure_text[256];

}  // namespace

uint32_t TiffLibraryLoad(const TiffLibrary **lib, const char **why) {
  if (!loaded && !failure) {
    void *handle = dlopen(ZV_TIFF_SONAME, RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
      std::snprintf(failure_text, sizeof failure_text, "%s", dlerror());
      failure = failure_text;
    } else {
#define ZV_TIFF_RESOLVE(f)                                                      \
  if (!failure && !(library.f = reinterpret_cast<decltype(library.f)>(dlsym(handle, #f)))) \
    failure = "libtiff lacks " #f;
      ZV_TIFF_FUNCTIONS(ZV_TIFF_RESOLVE)
#undef ZV_TIFF_RESOLVE
      loaded = !failure;
    }
  }
  *lib = &library;
  *why = failure;
  return loaded ? 0 : E_IMAGEIO_FORMAT;
}
