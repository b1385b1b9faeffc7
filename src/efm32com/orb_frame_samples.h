#ifndef ORB_FRAME_SAMPLES_H
#define ORB_FRAME_SAMPLES_H

// The sensor's frame as the host sees it, and its unpacking. A frame is one
// 2048-byte bulk transfer: sample i (one per filter) is the upper 12 bits of
// the big-endian word at byte 2i, the low nibble carries no signal. The
// unpacking runs on the event-loop thread for every frame, so it is written
// for SSE2 (every x86-64 has it), eight samples at a time; elsewhere plainly.

#include <stdint.h>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace orbframe {

constexpr int kSamples = 1024;  // one per filter
constexpr int kFrameBytes = 2 * kSamples;
constexpr int kSampleBits = 12;
constexpr int kSampleMax = (1 << kSampleBits) - 1;  // the ADC's full scale

inline int sample_at(const unsigned char* wire, int i) { return (wire[2 * i] << 4) | (wire[2 * i + 1] >> 4); }

#ifdef __SSE2__
// Eight samples as 16-bit lanes. Loaded little-endian, word x holds byte 2i
// in its low half: the sample is (x & 0xFF) << 4 | x >> 12.
inline __m128i eight_samples(const unsigned char* wire, int i) {
    const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(wire + 2 * i));
    return _mm_or_si128(_mm_slli_epi16(_mm_and_si128(x, _mm_set1_epi16(0xFF)), 4), _mm_srli_epi16(x, 12));
}
#endif

inline void unpack_to_int(const unsigned char* __restrict wire, int* __restrict values) {
#ifdef __SSE2__
    const __m128i zero = _mm_setzero_si128();
    for (int i = 0; i < kSamples; i += 8) {
        const __m128i s = eight_samples(wire, i);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(values + i), _mm_unpacklo_epi16(s, zero));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(values + i + 4), _mm_unpackhi_epi16(s, zero));
    }
#else
    for (int i = 0; i < kSamples; i++) values[i] = sample_at(wire, i);
#endif
}

// The same, clearing the wire frame in the same pass, for the callback,
// which must hand the buffer back zeroed.
inline void unpack_to_int_clearing(unsigned char* __restrict wire, int* __restrict values) {
#ifdef __SSE2__
    const __m128i zero = _mm_setzero_si128();
    for (int i = 0; i < kSamples; i += 8) {
        const __m128i s = eight_samples(wire, i);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(wire + 2 * i), zero);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(values + i), _mm_unpacklo_epi16(s, zero));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(values + i + 4), _mm_unpackhi_epi16(s, zero));
    }
#else
    for (int i = 0; i < kSamples; i++) {
        values[i] = sample_at(wire, i);
        wire[2 * i] = wire[2 * i + 1] = 0;
    }
#endif
}

// Also counts the samples equal to `saturated`.
inline int unpack_to_u16(const unsigned char* __restrict wire, uint16_t* __restrict values, uint16_t saturated) {
#ifdef __SSE2__
    const __m128i full = _mm_set1_epi16(static_cast<short>(saturated));
    __m128i matches = _mm_setzero_si128();  // minus the count, per lane: at most 128
    for (int i = 0; i < kSamples; i += 8) {
        const __m128i s = eight_samples(wire, i);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(values + i), s);
        matches = _mm_add_epi16(matches, _mm_cmpeq_epi16(s, full));
    }
    alignas(16) int16_t lanes[8];
    _mm_store_si128(reinterpret_cast<__m128i*>(lanes), matches);
    int count = 0;
    for (int16_t lane : lanes) count -= lane;
    return count;
#else
    int count = 0;
    for (int i = 0; i < kSamples; i++) {
        values[i] = static_cast<uint16_t>(sample_at(wire, i));
        count += values[i] == saturated;
    }
    return count;
#endif
}

}  // namespace orbframe

#endif
