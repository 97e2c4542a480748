// SPDX-License-Identifier: MIT
#include "peers/plain.h"

#include "harness/suite.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace Bench::Limits {

namespace {

#if defined(__x86_64__)

bool hasAvx2()
{
    static const bool has = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
    return has;
}

// Independent registers, so that no operation waits for another.
__attribute__((target("avx2"))) void wide(long eights)
{
    const __m256 one = _mm256_set1_ps(1.0f);
    __m256 a = one, b = one, c = one, d = one, e = one, f = one;
    __m256 p = one, q = one, r = one, s = one, t = one, u = one;
    for (; eights > 0; eights -= 6) {
        asm volatile("vaddps %12, %0, %0\n\tvmulps %12, %6, %6\n\t"
                     "vaddps %12, %1, %1\n\tvmulps %12, %7, %7\n\t"
                     "vaddps %12, %2, %2\n\tvmulps %12, %8, %8\n\t"
                     "vaddps %12, %3, %3\n\tvmulps %12, %9, %9\n\t"
                     "vaddps %12, %4, %4\n\tvmulps %12, %10, %10\n\t"
                     "vaddps %12, %5, %5\n\tvmulps %12, %11, %11"
                     : "+x"(a), "+x"(b), "+x"(c), "+x"(d), "+x"(e), "+x"(f), "+x"(p), "+x"(q),
                       "+x"(r), "+x"(s), "+x"(t), "+x"(u)
                     : "x"(one));
    }
}

__attribute__((target("avx2,fma"))) void fused(long eights)
{
    const __m256 one = _mm256_set1_ps(1.0f);
    __m256 a = one, b = one, c = one, d = one, e = one, f = one, g = one, h = one;
    for (; eights > 0; eights -= 8) {
        asm volatile("vfmadd132ps %8, %8, %0\n\tvfmadd132ps %8, %8, %1\n\t"
                     "vfmadd132ps %8, %8, %2\n\tvfmadd132ps %8, %8, %3\n\t"
                     "vfmadd132ps %8, %8, %4\n\tvfmadd132ps %8, %8, %5\n\t"
                     "vfmadd132ps %8, %8, %6\n\tvfmadd132ps %8, %8, %7"
                     : "+x"(a), "+x"(b), "+x"(c), "+x"(d), "+x"(e), "+x"(f), "+x"(g), "+x"(h)
                     : "x"(one));
    }
}

void narrowly(long fours)
{
    const __m128 one = _mm_set1_ps(1.0f);
    __m128 a = one, b = one, c = one, d = one, e = one, f = one;
    __m128 p = one, q = one, r = one, s = one, t = one, u = one;
    for (; fours > 0; fours -= 6) {
        asm volatile("addps %12, %0\n\tmulps %12, %6\n\taddps %12, %1\n\tmulps %12, %7\n\t"
                     "addps %12, %2\n\tmulps %12, %8\n\taddps %12, %3\n\tmulps %12, %9\n\t"
                     "addps %12, %4\n\tmulps %12, %10\n\taddps %12, %5\n\tmulps %12, %11"
                     : "+x"(a), "+x"(b), "+x"(c), "+x"(d), "+x"(e), "+x"(f), "+x"(p), "+x"(q),
                       "+x"(r), "+x"(s), "+x"(t), "+x"(u)
                     : "x"(one));
    }
}

__attribute__((target("avx2"))) void readWide(const float *x, long count)
{
    __m256 a = _mm256_setzero_ps(), b = a, c = a, d = a;
    for (; count >= 32; count -= 32, x += 32) {
        a = _mm256_or_ps(a, _mm256_loadu_ps(x));
        b = _mm256_or_ps(b, _mm256_loadu_ps(x + 8));
        c = _mm256_or_ps(c, _mm256_loadu_ps(x + 16));
        d = _mm256_or_ps(d, _mm256_loadu_ps(x + 24));
    }
    const __m256 all = _mm256_or_ps(_mm256_or_ps(a, b), _mm256_or_ps(c, d));
    asm volatile("" : : "x"(all));
}

#else

bool hasAvx2()
{
    return false;
}
void wide(long) {}
void fused(long) {}
void narrowly(long) {}
void readWide(const float *, long) {}

#endif

} // namespace

void multiplyAndAdd(long eights, bool narrow)
{
    if (hasAvx2() && !narrow)
        wide(eights);
    else
        narrowly(2 * eights);
}

void fusedOperations(long eights)
{
    if (hasAvx2())
        fused(eights);
    else
        narrowly(2 * eights);
}

void read(const float *x, long count)
{
    if (hasAvx2())
        return readWide(x, count);
    float sum = 0.0f;
    for (long i = 0; i < count; ++i)
        sum += x[i];
    keep(sum);
}

} // namespace Bench::Limits
