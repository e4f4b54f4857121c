// The image-file library: opening, creating and block access of image files in several formats.
// Formats live behind this interface; callers never see a format's layout.
#pragma once
#include <cstdint>

// Error codes of the library (block 0x210000 .. 0x210010), registered by ImageioModule.
inline constexpr uint32_t E_IMAGEIO = 0x210000;          // internal error
inline constexpr uint32_t E_IMAGEIO_OPEN = 0x210001;     // cannot open file
inline constexpr uint32_t E_IMAGEIO_FORMAT = 0x210002;   // unknown file format
inline constexpr uint32_t E_IMAGEIO_CAP = 0x210003;      // invalid capability
inline constexpr uint32_t E_IMAGEIO_TYPE = 0x210004;     // element type not supported by the format
inline constexpr uint32_t E_IMAGEIO_DIM = 0x210005;      // invalid number of dimensions
inline constexpr uint32_t E_IMAGEIO_SIZE = 0x210006;     // array size cannot be computed
inline constexpr uint32_t E_IMAGEIO_HEADER = 0x210007;   // invalid or corrupt file header
inline constexpr uint32_t E_IMAGEIO_READ = 0x210008;     // read error / file shorter than its header says
inline constexpr uint32_t E_IMAGEIO_WRITE = 0x210009;    // write error
inline constexpr uint32_t E_IMAGEIO_CREATE = 0x21000a;   // cannot create file
inline constexpr uint32_t E_IMAGEIO_RANGE = 0x21000b;    // block outside the image
inline constexpr uint32_t E_IMAGEIO_END = 0x210010;

// How an image is open (ImageioMeta::state2).
inline constexpr uint32_t ImageioModeRead = 1;       // an existing file, for reading
inline constexpr uint32_t ImageioModeReadWrite = 2;  // an existing file, rewritten in place
inline constexpr uint32_t ImageioModeCreate = 3;     // a new file, put in place when it is closed

// Parameter flag: create the image marked for deletion.
inline constexpr uint32_t ImageioFlagDel = 2;
// Metadata state flag: the image is marked for deletion.
inline constexpr uint32_t ImageioStateDel = 2;

// Attribute flags of an image (ImageDesc::attr); the low four bits must agree between operands.
inline constexpr uint32_t ImageioAttrFourier = 2;    // the data is a Fourier transform
inline constexpr uint32_t ImageioAttrHermitian = 8;  // Fourier transform stored as its Hermitian half

struct ImageioParam {
  uint64_t word;       // reserved
  const char *format;  // format name, or null: by content when reading, by file name when creating
  uint32_t flags;      // ImageioFlagDel
  uint32_t caps;       // capability value from ImageioCapCheck, 0 for the defaults
};
extern const ImageioParam ImageioParamDefault;

// Geometry carried from image to image: ImageDesc::geom holds the address of one of these (owned by
// the image's handle) or 0.
struct ImageioGeometry {
  double voxel[3];      // voxel size along axes 0..2 (Angstrom), 0 when unknown
  double origin[3];     // origin along axes 0..2 (Angstrom)
  int32_t axisorder[3]; // axis order (mapc, mapr, maps), 1 2 3 normally
  int32_t spacegroup;   // space group word of formats that have one, else 0
  int32_t start[3];     // grid index of the first voxel along axes 0..2 (a sub-map's place in its map), 0 normally
};

struct ImageDesc {
  uint64_t dim;    // number of axes
  uint64_t *len;   // axis lengths, axis 0 first; filled by open: points into the handle
  uint64_t geom;   // address of an ImageioGeometry, or 0
  uint32_t type;   // element type code
  uint32_t attr;   // attribute flags
};

struct ImageioMeta {
  uint32_t state;   // ImageioStateDel when marked for deletion
  uint32_t state2;  // open mode: ImageioModeRead, ImageioModeReadWrite or ImageioModeCreate
  const char *format;
};

struct ImageioHandle;

uint32_t ImageioFormatCheck(const char *name);   // 0 or an error code (not pushed)
const char *ImageioFormatName(uint32_t index);   // the known formats by index from 0; null past the last
uint32_t ImageioCapCheck(const char *text);      // capability value, 0 when the text is invalid

// Open / create. Null on failure, with the error pushed (path and reason attached).
ImageioHandle *ImageioOpenReadOnly(const char *path, ImageDesc *desc, const ImageioParam *param);
ImageioHandle *ImageioOpenReadWrite(const char *path, ImageDesc *desc, const ImageioParam *param);
ImageioHandle *ImageioCreate(const char *path, const ImageDesc *desc, const ImageioParam *param);

uint32_t ImageioGetMeta(ImageioHandle *handle, ImageioMeta *meta);
uint32_t ImageioAddr(ImageioHandle *handle, uint64_t a, uint64_t b, void **addr);
// Close; a created image still marked for deletion is removed, otherwise it is put in place.
uint32_t ImageioClose(ImageioHandle *handle);
uint32_t ImageioDel(ImageioHandle *handle);
uint32_t ImageioUndel(ImageioHandle *handle);

// Block access: a buffer for elements first .. first+count-1, valid until the matching end call.
// Null with an error pushed on failure. At most one block per handle is held at a time.
void *ImageioBeginRead(ImageioHandle *handle, uint64_t first, uint64_t count);
void *ImageioBeginWrite(ImageioHandle *handle, uint64_t first, uint64_t count);
uint32_t ImageioEndRead(ImageioHandle *handle, uint64_t first, uint64_t count, void *buffer);
// Store the buffer into the image (also for a buffer from ImageioBeginRead of a read-write image).
uint32_t ImageioEndWrite(ImageioHandle *handle, uint64_t first, uint64_t count, void *buffer);

// Attach the image's file path to the pending error.
void ImageioErrPath(ImageioHandle *handle, uint32_t code);

// A text recorded in new and rewritten files of formats that keep a history (e.g. the command line).
void ImageioSetHistory(const char *text);
