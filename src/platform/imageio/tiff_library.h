// libtiff, loaded when a TIFF file is first opened or created. The library and the nine it needs
// cost about a millisecond of every start, which the many runs that touch no TIFF file should not
// pay; so the tool is not linked with it, and TIFF code calls it through this table.
#pragma once
#include <tiffio.h>

#include <cstdint>

#define ZV_TIFF_FUNCTIONS(X)                                                                                        \
  X(TIFFCleanup) X(TIFFClientOpenExt) X(TIFFComputeTile) X(TIFFCurrentDirOffset) X(TIFFFindCODEC) X(TIFFFlush)     \
  X(TIFFGetField) X(TIFFGetFieldDefaulted) X(TIFFGetStrileByteCountWithErr) X(TIFFGetStrileOffset)                 \
  X(TIFFGetStrileOffsetWithErr) X(TIFFIsByteSwapped) X(TIFFIsCODECConfigured) X(TIFFIsTiled) X(TIFFLastDirectory)  \
  X(TIFFNumberOfStrips) X(TIFFNumberOfTiles) X(TIFFOpenOptionsAlloc) X(TIFFOpenOptionsFree)                        \
  X(TIFFOpenOptionsSetErrorHandlerExtR) X(TIFFOpenOptionsSetMaxSingleMemAlloc)                                     \
  X(TIFFOpenOptionsSetWarningHandlerExtR) X(TIFFReadDirectory) X(TIFFReadEncodedStrip) X(TIFFReadEncodedTile)      \
  X(TIFFSetErrorHandler) X(TIFFSetField) X(TIFFSetSubDirectory) X(TIFFSetWarningHandler) X(TIFFSwabArrayOfLong)    \
  X(TIFFSwabArrayOfLong8) X(TIFFSwabArrayOfShort) X(TIFFWriteDirectory) X(TIFFWriteEncodedStrip) X(TIFFWriteRawStrip)

// The library's functions used here, each of the type its header declares.
struct TiffLibrary {
#define ZV_TIFF_FIELD(f) decltype(&::f) f;
  ZV_TIFF_FUNCTIONS(ZV_TIFF_FIELD)
#undef ZV_TIFF_FIELD
};

// The functions once the library is loaded (the first call loads it); 0, or E_IMAGEIO_FORMAT with
// the reason in *why (a static text) when it cannot be loaded.
uint32_t TiffLibraryLoad(const TiffLibrary **lib, const char **why);
