/* Plain C streaming reference for the benchmark: reads its inputs and writes its output in 1 MiB
 * chunks (2^18 elements of the widest stream, real32) with read()/write(), skipping the input file
 * headers and writing a zero-filled placeholder header of the output format's size, with the same
 * element loop as zvcompute.  Results are bit-identical to zvcompute's: flush-to-zero and
 * denormals-are-zero are set as zvcompute sets them, no FMA, the same libm and libc calls.
 *
 * Usage:
 *   ref_stream gen  real32|int16|cmplx32 COUNT SEED FILE   append COUNT pseudo-random elements
 *   ref_stream add  OUT OUTHDR A AOFF B BOFF         out = a + b                (real32)
 *   ref_stream mul  OUT OUTHDR A AOFF VALUE          out = a * value            (real32)
 *   ref_stream sqrt OUT OUTHDR A AOFF                out = sqrtf(a)             (real32)
 *   ref_stream exp  OUT OUTHDR A AOFF                out = expf(a)              (real32)
 *   ref_stream ln|sin|cos|tan|asin|acos|atan OUT OUTHDR A AOFF    out = logf(a), sinf(a) ...
 *   ref_stream phase|abs OUT OUTHDR D DOFF           out = atan2f(im, re), hypotf(re, im), d cmplx32
 *   ref_stream real32 OUT OUTHDR A AOFF              out = (float)a, a int16    (real32)
 *   ref_stream gt   OUT OUTHDR A AOFF VALUE          out = a > value            (uint8)
 *   ref_stream mean OUT OUTHDR A AOFF                out = a - mean of its 2^24-element block
 *   ref_stream nran OUT OUTHDR A AOFF VALUE          out = a + gaussian(sd = value), srand(SEED)
 *   ref_stream uran OUT OUTHDR A AOFF VALUE          out = rand() * (value * 2^-31) + a, srand(SEED)
 *
 * Build: cc -O2 -fvect-cost-model=dynamic -ffp-contract=off -fno-math-errno ref_stream.c -lm
 * (the optimisation and floating-point flags of zvcompute's own release build). */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#if defined(__x86_64__) || defined(__i386__)
#include <xmmintrin.h>
#endif

#define CHUNK ((size_t)1 << 18) /* elements per chunk: 1 MiB of real32 */
#define STAT_BLOCK ((uint64_t)1 << 24) /* elements per mean block, as zvcompute's blocks */

static void die(const char *what, const char *name) {
  fprintf(stderr, "ref_stream: %s %s: %s\n", what, name ? name : "", strerror(errno));
  exit(2);
}

static int open_in(const char *name, long long off, uint64_t esize, uint64_t *count) {
  int fd = open(name, O_RDONLY);
  if (fd < 0) die("cannot open", name);
  struct stat st;
  if (fstat(fd, &st) != 0) die("cannot stat", name);
  if (lseek(fd, off, SEEK_SET) < 0) die("cannot seek", name);
  *count = ((uint64_t)st.st_size - (uint64_t)off) / esize;
  return fd;
}

static int open_out(const char *name, long long hdr) {
  int fd = open(name, O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) die("cannot create", name);
  static const char zero[4096];
  while (hdr > 0) {
    size_t n = hdr > (long long)sizeof zero ? sizeof zero : (size_t)hdr;
    if (write(fd, zero, n) != (ssize_t)n) die("cannot write", name);
    hdr -= (long long)n;
  }
  return fd;
}

static void read_all(int fd, void *p, size_t bytes) {
  char *c = p;
  while (bytes > 0) {
    ssize_t r = read(fd, c, bytes);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) die("read failed", "");
    c += r;
    bytes -= (size_t)r;
  }
}

static void write_all(int fd, const void *p, size_t bytes) {
  const char *c = p;
  while (bytes > 0) {
    ssize_t r = write(fd, c, bytes);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) die("write failed", "");
    c += r;
    bytes -= (size_t)r;
  }
}

static void close_out(int fd) {
  if (close(fd) != 0) die("close failed", "");
}

/* The element loops. */
static void loop_add(float *restrict d, const float *restrict a, const float *restrict b, size_t n) {
  for (size_t i = 0; i < n; ++i) d[i] = a[i] + b[i];
}
static void loop_mul(float *restrict d, const float *restrict a, float v, size_t n) {
  for (size_t i = 0; i < n; ++i) d[i] = a[i] * v;
}
static void loop_sqrt(float *restrict d, const float *restrict a, size_t n) {
  for (size_t i = 0; i < n; ++i) d[i] = __builtin_sqrtf(a[i]);
}
static void loop_exp(float *restrict d, const float *restrict a, size_t n) {
  for (size_t i = 0; i < n; ++i) d[i] = expf(a[i]);
}
static float (*const functions[])(float) = {logf, sinf, cosf, tanf, asinf, acosf, atanf};
static const char *const function_names[] = {"ln", "sin", "cos", "tan", "asin", "acos", "atan"};
static void loop_function(float (*f)(float), float *restrict d, const float *restrict a, size_t n) {
  for (size_t i = 0; i < n; ++i) d[i] = f(a[i]);
}
static void loop_phase(float *restrict d, const float *restrict c, size_t n) {
  for (size_t i = 0; i < n; ++i) d[i] = atan2f(c[2 * i + 1], c[2 * i]);
}
static void loop_abs(float *restrict d, const float *restrict c, size_t n) {
  for (size_t i = 0; i < n; ++i) d[i] = hypotf(c[2 * i], c[2 * i + 1]);
}
static void loop_real32(float *restrict d, const int16_t *restrict a, size_t n) {
  for (size_t i = 0; i < n; ++i) d[i] = (float)a[i];
}
static void loop_gt(uint8_t *restrict d, const float *restrict a, float v, size_t n) {
  for (size_t i = 0; i < n; ++i) d[i] = a[i] > v;
}

/* Gaussian draw: polar method on the first quadrant, a separate draw gives the sign; the same
 * rand() sequence and binary64 arithmetic as zvcompute's noise. */
static double random_normal(double a) {
  const double scale = 4.656612875245797e-10, threshold = 1073741823.5;
  double u, v, s;
  do {
    u = (double)rand() * scale;
    v = (double)rand() * scale;
    s = v * v + u * u;
  } while (s >= 1.0);
  double g = sqrt((log(s) * -2.0) / s) * u;
  if ((double)rand() >= threshold) return g * a;
  return (-g) * a;
}

/* xorshift64* input generator: real32 uniform in [0, 2) on a 2^-23 grid, int16 over its range,
 * cmplx32 with both parts uniform in [-1, 1). */
static int gen(const char *type, uint64_t count, uint64_t seed, const char *name) {
  int fd = open(name, O_WRONLY | O_APPEND);
  if (fd < 0) die("cannot open", name);
  uint64_t x = seed * 0x9E3779B97F4A7C15ull + 1;
  int is_f32 = strcmp(type, "real32") == 0, is_c32 = strcmp(type, "cmplx32") == 0;
  size_t esize = is_f32 ? 4 : 2;
  if (is_c32) {
    count *= 2; /* two real32 parts per element */
    is_f32 = 1;
    esize = 4;
  }
  void *buf = malloc(CHUNK * esize);
  if (!buf) die("out of memory", "");
  for (uint64_t done = 0; done < count;) {
    size_t n = count - done < CHUNK ? (size_t)(count - done) : CHUNK;
    for (size_t i = 0; i < n; ++i) {
      x ^= x >> 12;
      x ^= x << 25;
      x ^= x >> 27;
      uint64_t r = x * 0x2545F4914F6CDD1Dull;
      if (is_c32) ((float *)buf)[i] = (float)(r >> 40) * 0x1p-23f - 1.0f;
      else if (is_f32) ((float *)buf)[i] = (float)(r >> 40) * 0x1p-23f;
      else ((int16_t *)buf)[i] = (int16_t)(uint16_t)(r >> 48);
    }
    write_all(fd, buf, n * esize);
    done += n;
  }
  close_out(fd);
  free(buf);
  return 0;
}

/* Mean removal per block of 2^24 elements: a first pass sums the block (eight binary64 lanes, folded
 * pairwise, as zvcompute's statistics do), a second pass re-reads it and subtracts in binary64. */
static void mean_op(int in, int out, uint64_t count, float *a, float *d) {
  for (uint64_t first = 0; first < count; first += STAT_BLOCK) {
    uint64_t bn = count - first < STAT_BLOCK ? count - first : STAT_BLOCK;
    off_t start = lseek(in, 0, SEEK_CUR);
    double lane[8] = {0, 0, 0, 0, 0, 0, 0, 0};
    for (uint64_t k = 0; k < bn;) {
      size_t n = bn - k < CHUNK ? (size_t)(bn - k) : CHUNK;
      read_all(in, a, n * 4);
      size_t i = 0;
      for (; i + 8 <= n; i += 8)
        for (size_t j = 0; j < 8; ++j) lane[j] += (double)a[i + j];
      for (size_t j = 0; i < n; ++i, ++j) lane[j] += (double)a[i];
      k += n;
    }
    double sum = ((lane[0] + lane[1]) + (lane[2] + lane[3])) + ((lane[4] + lane[5]) + (lane[6] + lane[7]));
    double mean = sum / (double)bn;
    if (lseek(in, start, SEEK_SET) < 0) die("cannot seek", "");
    for (uint64_t k = 0; k < bn;) {
      size_t n = bn - k < CHUNK ? (size_t)(bn - k) : CHUNK;
      read_all(in, a, n * 4);
      for (size_t i = 0; i < n; ++i) d[i] = (float)((double)a[i] - mean);
      write_all(out, d, n * 4);
      k += n;
    }
  }
}

int main(int argc, char **argv) {
#if defined(__x86_64__) || defined(__i386__)
  _mm_setcsr(_mm_getcsr() | 0x8040); /* flush-to-zero and denormals-are-zero */
#endif
  if (argc >= 6 && strcmp(argv[1], "gen") == 0)
    return gen(argv[2], strtoull(argv[3], NULL, 10), strtoull(argv[4], NULL, 10), argv[5]);
  if (argc < 6) {
    fprintf(stderr, "usage: ref_stream OP OUT OUTHDR A AOFF [B BOFF | VALUE]\n");
    return 2;
  }
  const char *op = argv[1];
  int is_int16 = strcmp(op, "real32") == 0;
  int is_cmplx = strcmp(op, "phase") == 0 || strcmp(op, "abs") == 0;
  int function = -1;
  for (int k = 0; k < 7; ++k)
    if (strcmp(op, function_names[k]) == 0) function = k;
  uint64_t count, count_b;
  int in = open_in(argv[4], atoll(argv[5]), is_int16 ? 2 : is_cmplx ? 8 : 4, &count);
  int out = open_out(argv[2], atoll(argv[3]));
  float *a = aligned_alloc(64, CHUNK * 4), *b = aligned_alloc(64, CHUNK * 4), *d = aligned_alloc(64, CHUNK * 4);
  if (!a || !b || !d) die("out of memory", "");
  int inb = -1;
  float value = 0.0f;
  if (strcmp(op, "add") == 0) {
    if (argc < 8) return 2;
    inb = open_in(argv[6], atoll(argv[7]), 4, &count_b);
    if (count_b != count) {
      fprintf(stderr, "ref_stream: inputs differ in size\n");
      return 2;
    }
  } else if (argc >= 7) {
    value = strtof(argv[6], NULL);
  }
  if (strcmp(op, "mean") == 0) {
    mean_op(in, out, count, a, d);
  } else if (strcmp(op, "nran") == 0) {
    srand(123); /* zvcompute's default seed */
    const double amp = (double)value;
    for (uint64_t done = 0; done < count;) {
      size_t n = count - done < CHUNK ? (size_t)(count - done) : CHUNK;
      read_all(in, a, n * 4);
      for (size_t i = 0; i < n; ++i) d[i] = (float)((double)a[i] + random_normal(amp));
      write_all(out, d, n * 4);
      done += n;
    }
  } else if (strcmp(op, "uran") == 0) {
    srand(123);
    const float c = value * 0x1p-31f;
    for (uint64_t done = 0; done < count;) {
      size_t n = count - done < CHUNK ? (size_t)(count - done) : CHUNK;
      read_all(in, a, n * 4);
      for (size_t i = 0; i < n; ++i) d[i] = (float)rand() * c + a[i];
      write_all(out, d, n * 4);
      done += n;
    }
  } else {
    const size_t chunk = is_cmplx ? CHUNK / 2 : CHUNK;
    for (uint64_t done = 0; done < count;) {
      size_t n = count - done < chunk ? (size_t)(count - done) : chunk;
      read_all(in, a, n * (is_int16 ? 2 : is_cmplx ? 8 : 4));
      size_t out_bytes = n * 4;
      if (strcmp(op, "add") == 0) {
        read_all(inb, b, n * 4);
        loop_add(d, a, b, n);
      } else if (strcmp(op, "mul") == 0) {
        loop_mul(d, a, value, n);
      } else if (strcmp(op, "sqrt") == 0) {
        loop_sqrt(d, a, n);
      } else if (strcmp(op, "exp") == 0) {
        loop_exp(d, a, n);
      } else if (function >= 0) {
        loop_function(functions[function], d, a, n);
      } else if (strcmp(op, "phase") == 0) {
        loop_phase(d, a, n);
      } else if (strcmp(op, "abs") == 0) {
        loop_abs(d, a, n);
      } else if (is_int16) {
        loop_real32(d, (const int16_t *)a, n);
      } else if (strcmp(op, "gt") == 0) {
        loop_gt((uint8_t *)d, a, value, n);
        out_bytes = n;
      } else {
        fprintf(stderr, "ref_stream: unknown operation %s\n", op);
        return 2;
      }
      write_all(out, d, out_bytes);
      done += n;
    }
  }
  close_out(out);
  close(in);
  if (inb >= 0) close(inb);
  free(a);
  free(b);
  free(d);
  return 0;
}
