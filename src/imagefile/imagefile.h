// The image-file module: the format options, the reading and writing parameter records, and the
// image slots through which the driver opens, creates and marks its images.
#pragma once
#include <cstdint>

#include "platform/core/core.h"
#include "platform/imageio/imageio.h"

inline constexpr uint32_t E_IMAGEFILE = 66304;

// One image in use.
struct ImageSlot {
  const char *path;        // as given by the caller (not copied)
  ImageioHandle *handle;   // null when no image is open
  uint32_t state;          // metadata state flags; ImageioStateDel while marked for deletion
  uint32_t state2;         // further metadata word
  void *addr;              // the image's data address
};

extern ImageioParam ImageFileParamIn;   // reading
extern ImageioParam ImageFileParamOut;  // writing and read-write access

extern const ModuleDescriptor ImageFileModule;

uint32_t ImageFileRegister();
uint32_t ImageFileInit();
uint32_t ImageFileSlotNew(void **slot);
uint32_t ImageFileSlotFree(void *slot);
uint32_t ImageFileOpenRead(ImageSlot *slot, const char *path, ImageDesc *desc);
uint32_t ImageFileOpenReadWrite(ImageSlot *slot, const char *path, ImageDesc *desc);
uint32_t ImageFileCreate(ImageSlot *slot, const char *path, const ImageDesc *desc);
void ImageFileDel(ImageSlot *slot, bool del);
