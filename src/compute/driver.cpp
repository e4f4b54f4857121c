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

// One run's command.
struct Command {
  bool inplace;
  bool binary;
  const char *op;
  const char *dst_name;
  const char *src1_name;  // the in-place file in the in-place forms
  const char *src2_text;
};

// The state of one run, filled in step by step.
struct RunState {
  Command c;
  const OperationEntry *entry;
  Kernel kernel;
  bool numeric;                  // numeric operand class (else integer)
  ImageDesc desc1, desc2, ddesc;  // first operand, second operand, destination
  uint64_t count1;               // elements of the first operand's file; 0 in place
  uint64_t count2;               // elements of a second operand image; 0 for a number or none
  uint64_t total;                // elements of the destination: what the block loop processes
  ElementType dst_type;
  const void *number;            // the second operand when it is a number
  uint64_t block;                // elements per block
  const void *bcast1, *bcast2;   // an operand read once and applied to every block
};

int Usage() {
  const char *forms[] = {"<file> <op>", "<file> <op> (<file>|<number>)", "<file> = <op> <file>",
                         "<file> = <file> <op> (<file>|<number>)"};
  for (const char *f : forms) std::fprintf(stderr, "usage: %s: %s\n", Main, f);
  return 1;
}

// Attaches the slot's file path to the error just pushed.
uint32_t PathError(ImageSlot *slot, uint32_t code) {
  ImageioErrPath(slot->handle, code);
  return code;
}

// The status after a begin call that gave no buffer: the error the image-file library pushed.
uint32_t NoBuffer() {
  uint32_t st = ExceptionGet(1);
  return st ? st : E_IMAGEIO;
}

// Classification: the number of positional arguments and an "=" second select the form.
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

// An operation used in a form it lacks: say which form is missing.
uint32_t MissingForm(const OperationEntry *e, const Command &c) {
  bool other_place = c.binary ? (c.inplace ? e->binary_new : e->binary_inplace)
                              : (c.inplace ? e->unary_new : e->unary_inplace);
  const char *what = other_place ? (c.inplace ? "in-place" : "new-file")
                                 : (c.binary ? "two-operand" : "one-operand");
  std::string text = std::string(": '") + c.op + "' has no " + what + " form";
  return ExceptionPushMsg(E_MSG, "invalid call", text.c_str(), nullptr);
}

// The operation word: a type name of the core library first, then a row of the operation table.
const OperationEntry *FindOperation(const char *op) {
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

// Lookup: the operation and the kernel of the command's form.
uint32_t Lookup(RunState &r) {
  const OperationEntry *e = r.entry = FindOperation(r.c.op);
  if (!e) return ExceptionPushMsg(E_MSG, "unknown operation", nullptr);
  r.kernel = r.c.binary ? (r.c.inplace ? e->binary_inplace : e->binary_new)
                        : (r.c.inplace ? e->unary_inplace : e->unary_new);
  if (!r.kernel) return MissingForm(e, r.c);
  r.numeric = e->operand_class == OperandNumeric;
  return 0;
}

// Destination type of a numeric operation before the second operand is known.
ElementType NumericDefaultType(const OperationEntry *e, ElementType t1) {
  if (e->result_type) return e->result_type;
  if (IsImagType(t1)) return TypeImag32;
  if (t1 == TypeCmplx32 || t1 == TypeCmplx64) return t1;
  return TypeReal32;
}

// The first operand of the new-file forms; the destination starts as a copy of its description.
uint32_t FirstOperandNew(RunState &r) {
  if (uint32_t st = ImageFileOpenRead(src1_slot, r.c.src1_name, &r.desc1)) return st;
  const ImageDesc &d = r.desc1;
  if (d.dim < 1 || d.dim > 4) return PathError(src1_slot, ExceptionPush(E_IMAGEIO_DIM));
  r.ddesc = d;
  r.dst_type = r.numeric ? NumericDefaultType(r.entry, d.type) : d.type;
  if (ArrayOffset(d.dim, d.len, TypeSize(d.type), &r.count1))
    return PathError(src1_slot, ExceptionPush(E_IMAGEIO_SIZE));
  r.total = r.count1;
  return 0;
}

// The in-place file, which is both the first operand (read through the destination slot) and the
// destination; numeric operations rewrite only single-precision files of their result type.
uint32_t FirstOperandInPlace(RunState &r) {
  if (uint32_t st = ImageFileOpenReadWrite(dst_slot, r.c.dst_name, &r.ddesc)) return st;
  const ImageDesc &d = r.ddesc;
  if (d.dim < 1 || d.dim > 4) return PathError(dst_slot, ExceptionPush(E_IMAGEIO_DIM));
  ElementType t = d.type;
  if (r.numeric && ((t != TypeReal32 && t != TypeImag32 && t != TypeCmplx32) ||
                    (r.entry->result_type && r.entry->result_type != t)))
    return PathError(dst_slot, ExceptionPushMsg(E_MSG, "invalid data type", nullptr));
  if (ArrayOffset(d.dim, d.len, TypeSize(t), &r.total)) return PathError(dst_slot, ExceptionPush(E_IMAGEIO_SIZE));
  r.desc1 = d;
  r.dst_type = t;
  return 0;
}

uint32_t FirstOperand(RunState &r) { return r.c.inplace ? FirstOperandInPlace(r) : FirstOperandNew(r); }

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

// The second operand as a number: it parses completely in the parse type, which follows the first
// operand's type. False when it is to be opened as an image instead.
bool SecondOperandNumber(RunState &r) {
  StringParseFn parse = nullptr;
  ElementType parse_type = 0, t1 = r.desc1.type;
  if (r.numeric) {
    parse_type = t1 == TypeCmplx32 || t1 == TypeImag32 ? t1 : TypeReal32;
    parse = t1 == TypeCmplx32 ? StringParseCmplx32 : t1 == TypeImag32 ? StringParseImag32 : StringParseReal32;
  } else if ((parse = IntegerParser(t1))) {
    parse_type = t1;
  }
  const char *end = nullptr;
  if (!parse || parse(r.c.src2_text, &end, number_buffer, 0) != 0 || *end != 0) return false;
  r.desc2.type = parse_type;
  r.number = number_buffer;
  return true;
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

// The second operand as an image, checked against the first. A four-axis second operand with a
// smaller first one gives the destination its four axes.
uint32_t SecondOperandImage(RunState &r) {
  if (uint32_t st = ImageFileOpenRead(src2_slot, r.c.src2_text, &r.desc2)) return st;
  const ImageDesc &d1 = r.desc1, &d2 = r.desc2;
  if ((d1.attr & 0xf) != (d2.attr & 0xf) || (d1.dim != d2.dim && d1.dim <= 3 && d2.dim <= 3))
    return PathError(src2_slot, ExceptionPushMsg(E_MSG, "incompatible image", nullptr));
  if (d2.dim < 1 || d2.dim > 4) return PathError(src2_slot, ExceptionPush(E_IMAGEIO_DIM));
  if (r.c.inplace && d1.dim <= 3 && d2.dim == 4) return PathError(src2_slot, ExceptionPush(E_IMAGEIO_DIM));
  if (int offender = AxisRule(d1, d2)) {
    const char *name = offender == 1 ? r.c.src1_name : r.c.src2_text;
    return ExceptionPushMsg(E_MSG, "array size mismatch, file ", name, nullptr);
  }
  if (ArrayOffset(d2.dim, d2.len, TypeSize(d2.type), &r.count2))
    return PathError(src2_slot, ExceptionPush(E_IMAGEIO_SIZE));
  if (r.ddesc.dim < d2.dim) {
    r.ddesc.dim = d2.dim;
    r.ddesc.len = d2.len;
    r.ddesc.geom = d2.geom;
    r.total = r.count2;
  }
  return 0;
}

uint32_t SecondOperand(RunState &r) {
  if (!r.c.binary || SecondOperandNumber(r)) return 0;
  return SecondOperandImage(r);
}

// The destination type: the entry's rule for numeric binary forms, equal operand types for integer
// ones; in place the file keeps its type.
uint32_t DestinationType(RunState &r) {
  if (r.c.binary) {
    if (r.numeric && r.entry->result_type == 0) r.dst_type = r.entry->result_rule(r.desc1.type, r.desc2.type);
    else if (!r.numeric && r.desc2.type != r.desc1.type)
      return ExceptionPushMsg(E_MSG, "invalid data type, file ", r.c.src2_text, nullptr);
  }
  if (r.c.inplace && r.dst_type != r.ddesc.type) return ExceptionPushMsg(E_MSG, "invalid inplace operation", nullptr);
  return 0;
}

// A kernel refuses element types for an empty block as it does for a full one: asked first, it ends
// a run it would refuse before any block is read or the destination created.
uint32_t KernelAccepts(RunState &r) {
  alignas(64) static unsigned char empty[3][64];
  const void *src2 = r.c.binary ? (r.number ? r.number : empty[1]) : nullptr;
  uint32_t st = r.kernel(r.count2 != 0, empty[0], r.desc1.type, src2, r.desc2.type, 0, r.c.inplace ? empty[0] : empty[2],
                         r.dst_type);
  return st ? ExceptionPush(st) : 0;
}

// Block plan: an operand smaller than the destination is read once, kept for the whole run and
// applied to every block, each block then being one sub-array along axis 3.
uint32_t PlanBlocks(RunState &r) {
  r.block = ComputeBlockSize;
  if (r.count1 > 0 && r.count1 < r.total) {
    if (!(r.bcast1 = ImageioBeginRead(src1_slot->handle, 0, r.count1))) return NoBuffer();
    r.block = r.count1;
  }
  if (r.count2 > 0 && r.count2 < r.total) {
    if (!(r.bcast2 = ImageioBeginRead(src2_slot->handle, 0, r.count2))) return NoBuffer();
    r.block = r.count2;
  }
  return 0;
}

// The destination of the new-file forms, created marked for deletion. The Hermitian attribute
// follows -h for Fourier data and is kept only on cmplx32 results.
uint32_t CreateDestination(RunState &r) {
  if (r.c.inplace) return 0;
  if (h_count && (r.ddesc.attr & ImageioAttrFourier)) r.ddesc.attr |= ImageioAttrHermitian;
  if (r.dst_type != TypeCmplx32) r.ddesc.attr &= ~ImageioAttrHermitian;
  r.ddesc.type = r.dst_type;
  return ImageFileCreate(dst_slot, r.c.dst_name, &r.ddesc);
}

// Kernels whose result depends on the whole block (block statistics); every other kernel gives the same
// result whether it sees a block at once or in pieces.
bool NeedsWholeBlock(Kernel k) { return k == ComputeZeromean || k == ComputeRmsNorm; }

// Elements of one piece of a block: ComputePieceBytes of the widest operand or destination type.
uint64_t PieceElements(const RunState &r) {
  if (NeedsWholeBlock(r.kernel)) return r.block;
  const uint64_t es1 = TypeSize(r.desc1.type), es2 = TypeSize(r.desc2.type);
  uint64_t widest = TypeSize(r.dst_type) > es1 ? TypeSize(r.dst_type) : es1;
  if (r.count2 && es2 > widest) widest = es2;
  return ComputePieceBytes / widest;
}

// The block loop. Each block is worked through in pieces, each piece taken from the files, computed
// and stored before the next: the operands and the result of a piece stay in the processor's cache
// from the read to the write. Blocks smaller than a piece (the sub-arrays of a small broadcast
// operand) are taken from the files many at a time, one piece holding whole blocks; the kernel is
// still called once per block, since some kernels use statistics of the block they are given.
uint32_t BlockLoop(const RunState &r) {
  ImageioHandle *dh = dst_slot->handle;
  ImageioHandle *h1 = r.count1 == r.total && !r.c.inplace ? src1_slot->handle : nullptr;
  ImageioHandle *h2 = r.count2 && r.count2 == r.total ? src2_slot->handle : nullptr;
  const Kernel kernel = r.kernel;
  const bool inplace = r.c.inplace, array2 = r.count2 != 0;
  const ElementType t1 = r.desc1.type, t2 = r.desc2.type, td = r.dst_type;
  const uint64_t es1 = TypeSize(t1), es2 = TypeSize(t2), esd = TypeSize(td), total = r.total, block = r.block;
  const unsigned char *const bcast1 = static_cast<const unsigned char *>(r.bcast1);
  const unsigned char *const bcast2 = static_cast<const unsigned char *>(r.bcast2);
  const uint64_t unit = PieceElements(r);
  const uint64_t group = block < unit ? unit / block * block : block;  // whole blocks taken together
  ProgressStart(&progress, total, esd);
  uint64_t blocks = total ? (total - 1) / block + 1 : 0;
  for (uint64_t offset = 0; offset < total;) {
    uint64_t n = total - offset < group ? total - offset : group;
    for (uint64_t part = 0; part < n;) {
      uint64_t m = n - part < unit ? n - part : unit, at = offset + part;
      unsigned char *dbuf = static_cast<unsigned char *>(inplace ? ImageioBeginRead(dh, at, m) : ImageioBeginWrite(dh, at, m));
      if (!dbuf) return NoBuffer();
      const void *s1 = dbuf, *s2 = r.number;  // in place; a number or nothing
      if (h1 && !(s1 = ImageioBeginRead(h1, at, m))) return NoBuffer();
      if (h2 && !(s2 = ImageioBeginRead(h2, at, m))) return NoBuffer();

      // One kernel call per block, or per piece of a block.
      for (uint64_t done = 0; done < m;) {
        const uint64_t within = (at + done) % block, k = m - done < block - within ? m - done : block - within;
        const void *k1 = bcast1 ? bcast1 + within * es1 : static_cast<const unsigned char *>(s1) + done * es1;
        const void *k2 = bcast2 ? bcast2 + within * es2 : h2 ? static_cast<const unsigned char *>(s2) + done * es2 : s2;
        uint32_t st = kernel(array2, k1, t1, k2, t2, k, dbuf + done * esd, td);
        if (st && ExceptionPush(st)) return st;
        done += k;
      }

      uint32_t st;
      if (h2 && (st = ImageioEndRead(h2, at, m, const_cast<void *>(s2)))) return st;
      if (h1 && (st = ImageioEndRead(h1, at, m, const_cast<void *>(s1)))) return st;
      if ((st = ImageioEndWrite(dh, at, m, dbuf))) return st;
      part += m;
    }
    offset += n;
    ProgressUpdate(&progress, offset, (offset - 1) / block + 1, blocks);
  }
  return 0;
}

// Completion: the new destination loses its deletion mark and is kept when its slot is closed.
uint32_t Complete(const RunState &r) {
  if (!r.c.inplace) ImageFileDel(dst_slot, false);
  return 0;
}

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

int Run(int argc, char **argv) {
  RunState r{};
  if (!Classify(argc, argv, &r.c)) return Usage();
  if (Lookup(r) || FirstOperand(r) || SecondOperand(r) || DestinationType(r) || KernelAccepts(r) || PlanBlocks(r)) return 1;
  SetHistory(argc, argv);
  if (CreateDestination(r) || BlockLoop(r) || Complete(r)) return 1;
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
