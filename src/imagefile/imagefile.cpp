#include "imagefile/imagefile.h"

#include <cstdlib>

#include "options/options.h"
#include "platform/core/errors.h"

ImageioParam ImageFileParamIn;
ImageioParam ImageFileParamOut;

namespace {

constexpr const char *kName = "imagefile";
constexpr const char *kVersion = "2.4.1202";
constexpr const char *kStamp = "201406222041";
constexpr const char *kNotice = "image file access and format options";

const ErrorEntry kErrors[] = {
    {"E_IMAGEFILE", "internal error (imagefile)"},
    {nullptr, nullptr},
};

uint64_t fmtin_count, capin_count, fmt_count, cap_count;
const char *fmtin_value, *capin_value, *fmt_value, *cap_value;

OptionEntry kOptions[] = {
    {&fmtin_count, &fmtin_value, nullptr, nullptr, "[ fmtin <> String ]"},
    {&capin_count, &capin_value, nullptr, nullptr, "[ capin <> String ]"},
    {&fmt_count, &fmt_value, nullptr, nullptr, "[ fmt   <> String ]"},
    {&cap_count, &cap_value, nullptr, nullptr, "[ cap   <> String ]"},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

const ModuleDescriptor kInitRecord = {kName, kVersion, kNotice, kStamp, ImageFileInit, {}};

// The format and capability options of one direction into its parameter record.
uint32_t SetParam(ImageioParam *param, uint64_t fmt_given, const char *fmt, uint64_t cap_given, const char *cap) {
  *param = ImageioParamDefault;
  if (fmt_given) {
    if (uint32_t st = ImageioFormatCheck(fmt)) {
      if (ExceptionPush(st)) return st;
    } else {
      param->format = fmt;
    }
  }
  if (cap_given) {
    param->caps = ImageioCapCheck(cap);
    if (param->caps == 0) return ExceptionPush(E_IMAGEIO_CAP);
  }
  return 0;
}

using OpenFn = ImageioHandle *(*)(const char *, ImageDesc *, const ImageioParam *);

// Shared shape of opening and creating: local parameters, library call, metadata into the slot.
uint32_t SlotOpen(ImageSlot *slot, const char *path, ImageDesc *desc, const ImageioParam &base, bool create,
                  OpenFn open) {
  ImageioParam param = base;
  if (create) param.flags |= ImageioFlagDel;
  slot->handle = create ? ImageioCreate(path, desc, &param) : open(path, desc, &param);
  if (!slot->handle) return ExceptionGet(1);
  ImageioMeta meta{};
  uint32_t st = ImageioGetMeta(slot->handle, &meta);
  if (st == 0) {
    slot->path = path;
    slot->state = meta.state;
    slot->state2 = meta.state2;
    st = ImageioAddr(slot->handle, 0, 0, &slot->addr);
    if (st == 0) return 0;
  }
  ImageioClose(slot->handle);
  slot->handle = nullptr;
  return st;
}

}  // namespace

const ModuleDescriptor ImageFileModule = {kName, kVersion, kNotice, kStamp, ImageFileRegister, {}};

uint32_t ImageFileRegister() {
  if (uint32_t st = ExceptionRegister(kErrors, E_IMAGEFILE, E_IMAGEFILE + 1)) return st;
  return ModuleRegister(&kInitRecord);
}

uint32_t ImageFileInit() {
  if (uint32_t st = OptionsParse(kOptions, nullptr)) return st;
  if (uint32_t st = SetParam(&ImageFileParamIn, fmtin_count, fmtin_value, capin_count, capin_value)) return st;
  return SetParam(&ImageFileParamOut, fmt_count, fmt_value, cap_count, cap_value);
}

uint32_t ImageFileSlotNew(void **slot) {
  auto *s = static_cast<ImageSlot *>(std::calloc(1, sizeof(ImageSlot)));
  if (!s) return ExceptionPush(E_MEMORY);
  *slot = s;
  return 0;
}

uint32_t ImageFileSlotFree(void *slot) {
  if (!slot) return 0;
  auto *s = static_cast<ImageSlot *>(slot);
  uint32_t st = s->handle ? ImageioClose(s->handle) : 0;
  std::free(s);
  return st;
}

uint32_t ImageFileOpenRead(ImageSlot *slot, const char *path, ImageDesc *desc) {
  return SlotOpen(slot, path, desc, ImageFileParamIn, false, ImageioOpenReadOnly);
}

uint32_t ImageFileOpenReadWrite(ImageSlot *slot, const char *path, ImageDesc *desc) {
  return SlotOpen(slot, path, desc, ImageFileParamOut, false, ImageioOpenReadWrite);
}

uint32_t ImageFileCreate(ImageSlot *slot, const char *path, const ImageDesc *desc) {
  if (!desc) return ExceptionPush(E_ARGUMENT);
  return SlotOpen(slot, path, const_cast<ImageDesc *>(desc), ImageFileParamOut, true, nullptr);
}

void ImageFileDel(ImageSlot *slot, bool del) {
  if (!slot) return;
  if (del) {
    ImageioDel(slot->handle);
    slot->state |= ImageioStateDel;
  } else {
    ImageioUndel(slot->handle);
    slot->state &= ~ImageioStateDel;
  }
}
