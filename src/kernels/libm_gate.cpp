// Whether the vector replicas of the C library's functions may stand in for the library in this
// process. The replicas give the library's results only for the builds they were compared with over
// every binary32 argument, only for the variant of each function that the library binds on
// processors with FMA (it chooses between an FMA and an SSE2 build when it is loaded, and that choice
// can be changed by tunables), and only under the floating-point control state of that comparison.
// Each of these is checked here, once, in microseconds; a failed check leaves the scalar calls.
#define ZV_LIBM_IMPLEMENTATION
#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <cpuid.h>
#include <xmmintrin.h>

#include <cstring>
#include <initializer_list>

#include "kernels/libm_internal.h"

namespace {

// GNU build-ids of the libm builds every replica was compared with over all 2^32 arguments.
constexpr unsigned char kVerifiedBuilds[][20] = {
    // Debian 12, glibc 2.36-9+deb12u14, amd64
    {0xd6, 0xe6, 0xf9, 0xe3, 0xaf, 0x12, 0x43, 0xee, 0xd9, 0xbf,
     0x5e, 0xfd, 0x36, 0x6d, 0xd0, 0x15, 0xa9, 0xf2, 0x2c, 0x13},
};

// MXCSR of that comparison, sticky exception flags aside: all exceptions masked, round to nearest,
// flush-to-zero and denormals-are-zero.
constexpr unsigned kVerifiedCsr = 0x9fc0;

struct Search {
  const void *address;          // a function of the library
  const unsigned char *id = nullptr;
  size_t id_size = 0;
};

// The build-id note of the loaded object whose segments hold s->address.
int FindBuildId(dl_phdr_info *info, size_t, void *data) {
  Search *s = static_cast<Search *>(data);
  const uintptr_t a = reinterpret_cast<uintptr_t>(s->address);
  bool holds = false;
  for (int k = 0; k < info->dlpi_phnum; ++k) {
    const ElfW(Phdr) &p = info->dlpi_phdr[k];
    const uintptr_t start = info->dlpi_addr + p.p_vaddr;
    if (p.p_type == PT_LOAD && a >= start && a - start < p.p_memsz) holds = true;
  }
  if (!holds) return 0;
  for (int k = 0; k < info->dlpi_phnum; ++k) {
    const ElfW(Phdr) &p = info->dlpi_phdr[k];
    if (p.p_type != PT_NOTE) continue;
    const unsigned char *note = reinterpret_cast<const unsigned char *>(info->dlpi_addr + p.p_vaddr);
    const unsigned char *end = note + p.p_memsz;
    while (note + sizeof(ElfW(Nhdr)) <= end) {
      ElfW(Nhdr) h;
      std::memcpy(&h, note, sizeof h);
      const unsigned char *name = note + sizeof h;
      const unsigned char *desc = name + ((h.n_namesz + 3) & ~3u);
      if (h.n_type == NT_GNU_BUILD_ID && h.n_namesz == 4 && std::memcmp(name, "GNU", 4) == 0 &&
          desc + h.n_descsz <= end) {
        s->id = desc;
        s->id_size = h.n_descsz;
        return 1;
      }
      note = desc + ((h.n_descsz + 3) & ~3u);
    }
  }
  return 1;
}

bool VerifiedLibm() {
  // The function the tool's own calls are bound to (dlsym resolves the library's selector).
  Search s{dlsym(RTLD_DEFAULT, "expf")};
  if (s.address == nullptr) return false;
  dl_iterate_phdr(FindBuildId, &s);
  for (const auto &id : kVerifiedBuilds)
    if (s.id_size == sizeof id && std::memcmp(s.id, id, sizeof id) == 0) return true;
  return false;
}

// Arguments on which the library's FMA and SSE2 builds give different results (found by comparing
// the two builds over every argument; logf's builds agree everywhere, on 2 expf, 12 sinf and 22 cosf
// arguments they differ). The FMA build is bound when the library gives the replica's results on
// these.
constexpr uint32_t kExpProbes[] = {0x4202422f, 0xc27c65d9};
constexpr uint32_t kSinProbes[] = {0x4255b0a9, 0x42a35c07, 0xc2cf5854};
constexpr uint32_t kCosProbes[] = {0x418a3adb, 0x4202eb4b, 0xc2c55faa};

bool ReplicaMatches(const LibProbes &p) {
  float x[8], want[8], got[8];
  std::memcpy(x, p.args, p.n * sizeof(float));
  LibMapScalar(p.f, x, want, p.n);
  kAvx2Maps[static_cast<uint32_t>(p.f)](x, got, p.n);
  return std::memcmp(want, got, p.n * sizeof(float)) == 0;
}

// AVX-512 F, DQ and VL, and the system saving the opmask and all 512-bit registers at a context
// switch (XCR0 bits 1, 2 and 5 to 7; XGETBV is there when the system has enabled XSAVE).
bool Avx512Usable() {
  unsigned a, b, c, d;
  if (!__get_cpuid(1, &a, &b, &c, &d) || !(c & bit_OSXSAVE)) return false;
  unsigned xcr0, xcr0_high;
  __asm__("xgetbv" : "=a"(xcr0), "=d"(xcr0_high) : "c"(0));
  return (xcr0 & 0xe6) == 0xe6 && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq") &&
         __builtin_cpu_supports("avx512vl");
}

}  // namespace

const LibProbes kLibProbes[3] = {
    {LibUnary::Exp, kExpProbes, 2}, {LibUnary::Sin, kSinProbes, 3}, {LibUnary::Cos, kCosProbes, 3}};

bool LibVerifiedHost() {
  if ((_mm_getcsr() & ~0x3fu) != kVerifiedCsr) return false;
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") && VerifiedLibm();
}

LibGate LibCheckGate() {
  LibGate g;
  if (!LibVerifiedHost()) return g;
  // The library has one build of tanf, asinf, acosf, atanf, atan2f and hypotf, and logf's two builds
  // agree everywhere; the others are admitted when the FMA build is the bound one.
  for (LibUnary f : {LibUnary::Log, LibUnary::Tan, LibUnary::Asin, LibUnary::Acos, LibUnary::Atan})
    g.unary |= 1u << static_cast<uint32_t>(f);
  g.pair = 1u << static_cast<uint32_t>(LibPair::Phase) | 1u << static_cast<uint32_t>(LibPair::Magnitude);
  for (const LibProbes &p : kLibProbes)
    if (ReplicaMatches(p)) g.unary |= 1u << static_cast<uint32_t>(p.f);
  g.avx512 = Avx512Usable();
  return g;
}

LibMapFn LibReplica(const LibGate &g, LibUnary f) {
  const uint32_t i = static_cast<uint32_t>(f);
  if (!(g.unary >> i & 1)) return nullptr;
  return g.avx512 && kAvx512Maps[i] ? kAvx512Maps[i] : kAvx2Maps[i];
}

LibPairMapFn LibReplica(const LibGate &g, LibPair f) {
  const uint32_t i = static_cast<uint32_t>(f);
  if (!(g.pair >> i & 1)) return nullptr;
  return g.avx512 && kAvx512PairMaps[i] ? kAvx512PairMaps[i] : kAvx2PairMaps[i];
}
