// The constants of the C library's expf, logf, tanf and atanf (glibc 2.36), shared by their vector
// replicas.
#pragma once
#include <cstdint>

// expf: 2^(i/32) as bits minus i << 47; 32/ln2; the rounding shift; the cubic, scaled by 1/32.
alignas(64) constexpr uint64_t kExpTable[32] = {
    0x3ff0000000000000, 0x3fefd9b0d3158574, 0x3fefb5586cf9890f, 0x3fef9301d0125b51, 0x3fef72b83c7d517b,
    0x3fef54873168b9aa, 0x3fef387a6e756238, 0x3fef1e9df51fdee1, 0x3fef06fe0a31b715, 0x3feef1a7373aa9cb,
    0x3feedea64c123422, 0x3feece086061892d, 0x3feebfdad5362a27, 0x3feeb42b569d4f82, 0x3feeab07dd485429,
    0x3feea47eb03a5585, 0x3feea09e667f3bcd, 0x3fee9f75e8ec5f74, 0x3feea11473eb0187, 0x3feea589994cce13,
    0x3feeace5422aa0db, 0x3feeb737b0cdc5e5, 0x3feec49182a3f090, 0x3feed503b23e255d, 0x3feee89f995ad3ad,
    0x3feeff76f2fb5e47, 0x3fef199bdd85529c, 0x3fef3720dcef9069, 0x3fef5818dcfba487, 0x3fef7c97337b9b5f,
    0x3fefa4afa2a490da, 0x3fefd0765b6e4540};
constexpr double kExpInvLn2N = 0x1.71547652b82fep+0 * 32;
constexpr double kExpShift = 0x1.8p+52;
constexpr double kExpC0 = 0x1.c6af84b912394p-5 / 32 / 32 / 32, kExpC1 = 0x1.ebfce50fac4f3p-3 / 32 / 32,
                 kExpC2 = 0x1.62e42ff0c52d6p-1 / 32;

// logf: for each sixteenth of the reduced argument's range, 1/c and log(c); ln 2; the cubic.
alignas(64) constexpr double kLogTable[16][2] = {
    {0x1.661ec79f8f3bep+0, -0x1.57bf7808caadep-2}, {0x1.571ed4aaf883dp+0, -0x1.2bef0a7c06ddbp-2},
    {0x1.49539f0f010bp+0, -0x1.01eae7f513a67p-2},  {0x1.3c995b0b80385p+0, -0x1.b31d8a68224e9p-3},
    {0x1.30d190c8864a5p+0, -0x1.6574f0ac07758p-3}, {0x1.25e227b0b8eap+0, -0x1.1aa2bc79c81p-3},
    {0x1.1bb4a4a1a343fp+0, -0x1.a4e76ce8c0e5ep-4}, {0x1.12358f08ae5bap+0, -0x1.1973c5a611cccp-4},
    {0x1.0953f419900a7p+0, -0x1.252f438e10c1ep-5}, {0x1p+0, 0x0p+0},
    {0x1.e608cfd9a47acp-1, 0x1.aa5aa5df25984p-5},  {0x1.ca4b31f026aap-1, 0x1.c5e53aa362eb4p-4},
    {0x1.b2036576afce6p-1, 0x1.526e57720db08p-3}, {0x1.9c2d163a1aa2dp-1, 0x1.bc2860d22477p-3},
    {0x1.886e6037841edp-1, 0x1.1058bc8a07ee1p-2}, {0x1.767dcf5534862p-1, 0x1.4043057b6ee09p-2}};
constexpr double kLogLn2 = 0x1.62e42fefa39efp-1;
constexpr double kLogA0 = -0x1.00ea348b88334p-2, kLogA1 = 0x1.5575b0be00b6ap-2, kLogA2 = -0x1.ffffef20a4123p-2;

// The reduction x - n*pi/2 of sinf, cosf and tanf: 2/pi * 2^24 (the quadrant lands in bits 24 and
// up) and pi/2.
constexpr double kHalfPiInv = 0x1.45F306DC9C883p+23;
constexpr double kHalfPi = 0x1.921FB54442D18p0;

// tanf's single-precision kernel.
constexpr float kTanT[13] = {3.3333334327e-01f, 1.3333334029e-01f, 5.3968254477e-02f,  2.1869488060e-02f,
                             8.8632395491e-03f, 3.5920790397e-03f, 1.4562094584e-03f,  5.8804126456e-04f,
                             2.4646313977e-04f, 7.8179444245e-05f, 7.1407252108e-05f,  -1.8558637748e-05f,
                             2.5907305826e-05f};

// atanf: atan of the reductions' centres 1/2, 1, 3/2 and infinity, high and low parts; the odd
// polynomial's coefficients.
constexpr float kAtanHi[4] = {4.6364760399e-01f, 7.8539812565e-01f, 9.8279368877e-01f, 1.5707962513e+00f};
constexpr float kAtanLo[4] = {5.0121582440e-09f, 3.7748947079e-08f, 3.4473217170e-08f, 7.5497894159e-08f};
constexpr float kAtanT[11] = {3.3333334327e-01f,  -2.0000000298e-01f, 1.4285714924e-01f, -1.1111110449e-01f,
                              9.0908870101e-02f,  -7.6918758452e-02f, 6.6610731184e-02f, -5.8335702866e-02f,
                              4.9768779427e-02f,  -3.6531571299e-02f, 1.6285819933e-02f};
