#include "compute/driver.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "compute/compute.h"
#include "compute/progress.h"
#include "imagefile/imagefile.h"
#include "options/options.h"
#include "platform/core/array.h"
#include "platform/core/core.h"
#include "platform/core/errors.h"
#include "platform/core/fpu.h"
#include "platform/core/parse.h"

namespace {

constexpr const char *kProgram = "zvcompute";
constexpr const char *kVersion = "0.1.1349";
constexpr const char *kNotice = "element-wise operations on image files";
constexpr const char *kTag = "ZVCOMP";

ImageSlot *src1_slot, *src2_slot, *dst_slot;

uint64_t h_count;
Progress progress;  // cleared after the run, also when it fails
uint64_t seed_value = 123;

OptionEntry kProgramOptions[] = {
    {&h_count, nullptr, nullptr, nullptr, "[ h ]"},
    {nullptr, &seed_value, nullptr, nullptr, "[ seed <> Size ]"},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

// The module list: this program's own modules first, then the libraries'.
#define ZV_NODE(name, module, next) const ModuleListNode name = {0, next, &module, 0}
ZV_NODE(kNodeBase, BaseModule, nullptr);
ZV_NODE(kNodeArray, ArrayModule, &kNodeBase);
ZV_NODE(kNodeImage, ImageModule, &kNodeArray);
ZV_NODE(kNodeStatistics, StatisticsModule, &kNodeImage);
ZV_NODE(kNodeZvdata, ZvdataModule, &kNodeStatistics);
ZV_NODE(kNodeImageioExtra, ImageioExtraModule, &kNodeZvdata);
ZV_NODE(kNodeChecksum, ChecksumModule, &kNodeImageioExtra);
ZV_NODE(kNodeIO, IOModule, &kNodeChecksum);
ZV_NODE(kNodeFileio, FileioModule, &kNodeIO);
ZV_NODE(kNodeStringParse, StringParseModule, &kNodeFileio);
ZV_NODE(kNodeStringFormat, StringFormatModule, &kNodeStringParse);
ZV_NODE(kNodeFFFio, FFFioModule, &kNodeStringFormat);
ZV_NODE(kNodeImageio, ImageioModule, &kNodeFFFio);
ZV_NODE(kNodeOptions, OptionsModule, &kNodeImageio);
ZV_NODE(kModuleList, ImageFileModule, &kNodeOptions);
#undef ZV_NODE

// The second operand when it is a number: room for one element of any parse type.
alignas(8) unsigned char number_buffer[8];

// The parser of a number written for an integer first operand, null for other types.
StringParseFn IntegerParser(ElementType t) {
  switch (t) {
    case TypeUint8: return StringParseUint8;
    case TypeUint16: return StringParseUint16;
    case TypeUint32: return StringParseUint32;
    case TypeUint64: return StringParseUint64;
    case TypeInt8: return StringParseInt8;
    case TypeInt16: return StringParseInt16;
    case TypeInt32: return StringParseInt32;
    case TypeInt64: return StringParseInt64;
    default: return nullptr;
  }
}

// One run's command.
struct Command {
  bool inplace;
  bool binary;
  const char *op;
  const char *dst_name;
  const char *src1_name;  // the in-place file in the in-place forms
  const char *src2_text;
};

int Usage() {
  const char *forms[] = {"<file> <op>", "<file> <op> (<file>|<number>)", "<file> = <op> <file>",
                         "<file> = <file> <op> (<file>|<number>)"};
  for (const char *f : forms) std::fprintf(stderr, "usage: %s: %s\n", Main, f);
  return 1;
}

bool Classify(int argc, char **argv, Command *c) {
  int n = argc - 1;
  if (n == 2 || n == 3) {
    *c = {true, n == 3, argv[2], argv[1], argv[1], n == 3 ? argv[3] : nullptr};
    return true;
  }
  if ((n == 4 || n == 5) && std::strcmp(argv[2], "=") == 0) {
    if (n == 4) *c = {false, false, argv[3], argv[1], argv[4], nullptr};
    else *c = {false, true, argv[4], argv[1], argv[3], argv[5]};
    return true;
  }
  return false;
}

const OperationEntry *Lookup(const char *op) {
  for (int i = 0; TypeIdentTab[i]; ++i) {
    if (std::strcmp(op, TypeIdentTab[i]) == 0) {
      TypeNameEntry.result_type = TypeCodeTab[i];
      return &TypeNameEntry;
    }
  }
  for (const OperationEntry *e = OperationTable; e->name; ++e)
    if (std::strcmp(op, e->name) == 0) return e;
  return nullptr;
}

// An operation used in a form it lacks: say which form is missing.
uint32_t MissingForm(const OperationEntry *e, const Command &c) {
  bool other_place = c.binary ? (c.inplace ? e->binary_new : e->binary_inplace)
                              : (c.inplace ? e->unary_new : e->unary_inplace);
  const char *what = other_place ? (c.inplace ? "in-place" : "new-file")
                                 : (c.binary ? "two-operand" : "one-operand");
  std::string text = std::string(": '") + c.op + "' has no " + what + " form";
  return ExceptionPushMsg(E_MSG, "invalid call", text.c_str(), nullptr);
}

// Attaches the slot's file path to the error just pushed; the run then ends with status 1.
int PathError(ImageSlot *slot, uint32_t code) {
  ImageioErrPath(slot->handle, code);
  return 1;
}

// Destination type of a numeric operation before the second operand is known.
ElementType NumericDefaultType(const OperationEntry *e, ElementType t1) {
  if (e->result_type) return e->result_type;
  if (IsImagType(t1)) return TypeImag32;
  if (t1 == TypeCmplx32 || t1 == TypeCmplx64) return t1;
  return TypeReal32;
}

// The axis rule: same shape, or a four-axis image whose axes 0-2 match the other operand.
// Returns 0 when it holds, 1 when the first operand offends, 2 when the second does.
int AxisRule(const ImageDesc &d1, const ImageDesc &d2) {
  for (uint64_t k = 0; k < 4; ++k) {
    bool h1 = d1.dim > k, h2 = d2.dim > k;
    if (k == 3) {
      if (h1 && h2 && d1.len[3] != d2.len[3]) return 2;
    } else if (h1 && h2) {
      if (d1.len[k] != d2.len[k]) return 2;
    } else if (h1 && d1.len[k] != 1) {
      return 1;
    } else if (h2 && d2.len[k] != 1) {
      return 2;
    }
  }
  return 0;
}

// Kernels whose result depends on the whole block (block statistics); every other kernel gives the same
// result whether it sees a block at once or in pieces.
bool NeedsWholeBlock(Kernel k) { return k == ComputeZeromean || k == ComputeRmsNorm; }

// The history line that formats with labels record: the command and the date.
void SetHistory(int argc, char **argv) {
  std::string text = kProgram;
  for (int i = 1; i < argc; ++i) text += std::string(" ") + argv[i];
  char date[32];
  std::time_t now = std::time(nullptr);
  std::strftime(date, sizeof date, "%d-%b-%y  %H:%M:%S", std::localtime(&now));
  if (text.size() > 58) text.resize(58);
  text += std::string(60 - text.size(), ' ') + date;
  ImageioSetHistory(text.c_str());
}

// A kernel refuses element types for an empty block as it does for a full one: asked first, it
// ends a run it would refuse before any block is read or the destination created.
bool RefusedByKernel(Kernel kernel, const Command &c, ElementType t1, ElementType t2, const void *number,
                     uint64_t count2, ElementType dst_type) {
  alignas(64) static unsigned char empty[3][64];
  const void *src2 = c.binary ? (number ? number : empty[1]) : nullptr;
  uint32_t st = kernel(count2 != 0, empty[0], t1, src2, t2, 0, c.inplace ? empty[0] : empty[2], dst_type);
  return st && ExceptionPush(st);
}

int Run(int argc, char **argv) {
  Command c;
  if (!Classify(argc, argv, &c)) return Usage();

  const OperationEntry *entry = Lookup(c.op);
  if (!entry) {
    ExceptionPushMsg(E_MSG, "unknown operation", nullptr);
    return 1;
  }
  Kernel kernel = c.binary ? (c.inplace ? entry->binary_inplace : entry->binary_new)
                           : (c.inplace ? entry->unary_inplace : entry->unary_new);
  if (!kernel) {
    MissingForm(entry, c);
    return 1;
  }
  bool numeric = entry->operand_class == OperandNumeric;

  ImageDesc desc1{}, desc2{}, ddesc{};
  uint64_t count1 = 0, count2 = 0, total = 0;
  ElementType dst_type;

  if (!c.inplace) {
    if (ImageFileOpenRead(src1_slot, c.src1_name, &desc1)) return 1;
    if (desc1.dim < 1 || desc1.dim > 4) return PathError(src1_slot, ExceptionPush(E_IMAGEIO_DIM));
    ddesc = desc1;
    dst_type = numeric ? NumericDefaultType(entry, desc1.type) : desc1.type;
    if (ArrayOffset(desc1.dim, desc1.len, TypeSize(desc1.type), &count1))
      return PathError(src1_slot, ExceptionPush(E_IMAGEIO_SIZE));
    total = count1;
  } else {
    if (ImageFileOpenReadWrite(dst_slot, c.dst_name, &ddesc)) return 1;
    if (ddesc.dim < 1 || ddesc.dim > 4) return PathError(dst_slot, ExceptionPush(E_IMAGEIO_DIM));
    ElementType t = ddesc.type;
    if (numeric && ((t != TypeReal32 && t != TypeImag32 && t != TypeCmplx32) ||
                    (entry->result_type && entry->result_type != t))) {
      return PathError(dst_slot, ExceptionPushMsg(E_MSG, "invalid data type", nullptr));
    }
    if (ArrayOffset(ddesc.dim, ddesc.len, TypeSize(t), &total))
      return PathError(dst_slot, ExceptionPush(E_IMAGEIO_SIZE));
    desc1 = ddesc;
    dst_type = t;
  }

  const void *number = nullptr;
  if (c.binary) {
    // The second operand is a number when it parses completely in the parse type.
    StringParseFn parse = nullptr;
    ElementType parse_type = 0;
    if (numeric) {
      parse_type = desc1.type == TypeCmplx32 ? TypeCmplx32 : desc1.type == TypeImag32 ? TypeImag32 : TypeReal32;
      parse = parse_type == TypeCmplx32 ? StringParseCmplx32 : parse_type == TypeImag32 ? StringParseImag32 : StringParseReal32;
    } else if ((parse = IntegerParser(desc1.type))) {
      parse_type = desc1.type;
    }
    const char *end = nullptr;
    if (parse && parse(c.src2_text, &end, number_buffer, 0) == 0 && *end == 0) {
      desc2.type = parse_type;
      number = number_buffer;
    } else {
      if (ImageFileOpenRead(src2_slot, c.src2_text, &desc2)) return 1;
      if ((desc1.attr & 0xf) != (desc2.attr & 0xf) || (desc1.dim != desc2.dim && desc1.dim <= 3 && desc2.dim <= 3)) {
        return PathError(src2_slot, ExceptionPushMsg(E_MSG, "incompatible image", nullptr));
      }
      if (desc2.dim < 1 || desc2.dim > 4) return PathError(src2_slot, ExceptionPush(E_IMAGEIO_DIM));
      if (c.inplace && desc1.dim <= 3 && desc2.dim == 4) return PathError(src2_slot, ExceptionPush(E_IMAGEIO_DIM));
      if (int offender = AxisRule(desc1, desc2)) {
        ExceptionPushMsg(E_MSG, "array size mismatch, file ", offender == 1 ? c.src1_name : c.src2_text, nullptr);
        return 1;
      }
      if (ArrayOffset(desc2.dim, desc2.len, TypeSize(desc2.type), &count2))
        return PathError(src2_slot, ExceptionPush(E_IMAGEIO_SIZE));
      if (ddesc.dim < desc2.dim) {
        ddesc.dim = desc2.dim;
        ddesc.len = desc2.len;
        ddesc.geom = desc2.geom;
        total = count2;
      }
    }
    if (numeric && entry->result_type == 0) {
      dst_type = entry->result_rule(desc1.type, desc2.type);
    } else if (!numeric && desc2.type != desc1.type) {
      ExceptionPushMsg(E_MSG, "invalid data type, file ", c.src2_text, nullptr);
      return 1;
    }
  }
  if (c.inplace && dst_type != ddesc.type) {
    ExceptionPushMsg(E_MSG, "invalid inplace operation", nullptr);
    return 1;
  }

  if (RefusedByKernel(kernel, c, desc1.type, desc2.type, number, count2, dst_type)) return 1;

  // Block plan: an operand smaller than the destination is read once and applied to every block.
  uint64_t block = ComputeBlockSize;
  const void *bcast1 = nullptr, *bcast2 = nullptr;
  if (count1 > 0 && count1 < total) {
    bcast1 = ImageioBeginRead(src1_slot->handle, 0, count1);
    if (!bcast1) return 1;
    block = count1;
  }
  if (count2 > 0 && count2 < total) {
    bcast2 = ImageioBeginRead(src2_slot->handle, 0, count2);
    if (!bcast2) return 1;
    block = count2;
  }

  SetHistory(argc, argv);
  if (!c.inplace) {
    if (h_count && (ddesc.attr & ImageioAttrFourier)) ddesc.attr |= ImageioAttrHermitian;
    if (dst_type != TypeCmplx32) ddesc.attr &= ~ImageioAttrHermitian;
    ddesc.type = dst_type;
    if (ImageFileCreate(dst_slot, c.dst_name, &ddesc)) return 1;
  }

  // Each block is worked through in pieces, each piece taken from the files, computed and stored
  // before the next: the operands and the result of a piece stay in the processor's cache from the
  // read to the write. Kernels with block statistics take the whole block at once.
  ImageioHandle *dh = dst_slot->handle;
  ImageioHandle *h1 = count1 == total && !c.inplace ? src1_slot->handle : nullptr;
  ImageioHandle *h2 = count2 && count2 == total ? src2_slot->handle : nullptr;
  const uint64_t es1 = TypeSize(desc1.type), es2 = TypeSize(desc2.type);
  uint64_t widest = TypeSize(dst_type) > es1 ? TypeSize(dst_type) : es1;
  if (count2 && es2 > widest) widest = es2;
  const uint64_t unit = NeedsWholeBlock(kernel) ? block : ComputePieceBytes / widest;
  ProgressStart(&progress, total, TypeSize(dst_type));
  uint64_t blocks = total ? (total - 1) / block + 1 : 0, blocks_done = 0;
  for (uint64_t offset = 0; offset < total;) {
    uint64_t n = total - offset < block ? total - offset : block;
    for (uint64_t part = 0; part < n;) {
      uint64_t m = n - part < unit ? n - part : unit, at = offset + part;
      void *dbuf = c.inplace ? ImageioBeginRead(dh, at, m) : ImageioBeginWrite(dh, at, m);
      if (!dbuf) return 1;
      const void *s1 = dbuf, *s2 = number;  // in place; a number or nothing
      if (h1 && !(s1 = ImageioBeginRead(h1, at, m))) return 1;
      if (bcast1) s1 = static_cast<const unsigned char *>(bcast1) + part * es1;
      if (h2 && !(s2 = ImageioBeginRead(h2, at, m))) return 1;
      if (bcast2) s2 = static_cast<const unsigned char *>(bcast2) + part * es2;

      uint32_t st = kernel(count2 != 0, s1, desc1.type, s2, desc2.type, m, dbuf, dst_type);
      if (st && ExceptionPush(st)) return 1;

      if (h2 && ImageioEndRead(h2, at, m, const_cast<void *>(s2))) return 1;
      if (h1 && ImageioEndRead(h1, at, m, const_cast<void *>(s1))) return 1;
      if (ImageioEndWrite(dh, at, m, dbuf)) return 1;
      part += m;
    }
    offset += n;
    ProgressUpdate(&progress, offset, ++blocks_done, blocks);
  }

  if (!c.inplace) ImageFileDel(dst_slot, false);
  return 0;
}

}  // namespace

uint32_t ComputeOptionsInit() {
  if (uint32_t st = OptionsParse(kProgramOptions, nullptr)) {
    OptionsUsage(kProgramOptions);
    return st;
  }
  std::srand(static_cast<unsigned>(seed_value & 0xffffffffu));
  ComputeRandomSeed(static_cast<uint32_t>(seed_value & 0xffffffffu));
  return 0;
}

int ComputeMain(int argc, char **argv) {
  CoreSetFlushToZero();
  CoreRegisterAfter("zvcompute_src1", kVersion, kNotice, ImageFileSlotNew, ImageFileSlotFree,
                    reinterpret_cast<void **>(&src1_slot));
  CoreRegisterAfter("zvcompute_src2", kVersion, kNotice, ImageFileSlotNew, ImageFileSlotFree,
                    reinterpret_cast<void **>(&src2_slot));
  CoreRegisterAfter("zvcompute_dst", kVersion, kNotice, ImageFileSlotNew, ImageFileSlotFree,
                    reinterpret_cast<void **>(&dst_slot));
  CoreArgv = argv;
  CoreArgc = &argc;
  CorePreinit(kProgram, kVersion, kNotice, kTag);
  uint32_t word = 0;
  if (CoreInit(kProgram, &kModuleList, ComputeOptionsInit, 0, &word)) return 1;
  int status = Run(*CoreArgc, CoreArgv);
  ProgressFinish(&progress);
  return status;
}
