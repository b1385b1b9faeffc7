#ifndef ORB_SIM_NOISE_H
#define ORB_SIM_NOISE_H

// The emulated sensor's random numbers: a small seeded generator whose
// sequence is the same on every platform and library (the standard
// distributions are not), fast enough for 1024 draws per frame at several
// hundred frames a second.

#include <cmath>
#include <cstdint>

namespace orbsim {

class Noise {
public:
    // xoshiro256** seeded through splitmix64, so that nearby seeds give
    // unrelated sequences.
    explicit Noise(uint64_t seed) {
        for (uint64_t& word : s_) {
            seed += 0x9E3779B97F4A7C15ull;
            uint64_t z = seed;
            z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
            z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
            word = z ^ (z >> 31);
        }
    }

    uint64_t next() {
        const uint64_t result = rotl(s_[1] * 5, 7) * 9;
        const uint64_t t = s_[1] << 17;
        s_[2] ^= s_[0];
        s_[3] ^= s_[1];
        s_[1] ^= s_[2];
        s_[0] ^= s_[3];
        s_[2] ^= t;
        s_[3] = rotl(s_[3], 45);
        return result;
    }

    // In [0, 1).
    double uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }

    // Standard normal (Marsaglia's polar method; every other call is free).
    double normal() {
        if (has_spare_) {
            has_spare_ = false;
            return spare_;
        }
        double u, v, r;
        do {
            u = 2 * uniform() - 1;
            v = 2 * uniform() - 1;
            r = u * u + v * v;
        } while (r >= 1 || r == 0);
        const double f = std::sqrt(-2 * std::log(r) / r);
        spare_ = v * f;
        has_spare_ = true;
        return u * f;
    }

private:
    static uint64_t rotl(uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }
    uint64_t s_[4];
    double spare_ = 0;
    bool has_spare_ = false;
};

}  // namespace orbsim

#endif
