// orb-scene-dump: the scene model's numbers as CSV on standard output, so
// that plots show the model itself rather than a copy of it.
//
//   orb-scene-dump [--shutter S] [--seconds T] [--seed N] [--frames K] SCENE...
//       filter,centre_nm,mean[,frame1..frameK]   (K noisy frames, one exposure apart)
//   orb-scene-dump --spectrum SCENE...
//       kind,nm,power   (kind: continuum, or line for a line's total power)
//   orb-scene-dump --curves I,J,...
//       nm,qe,fI,fJ,...  (the response of filters I, J, ... on the grid)
//   orb-scene-dump --time N [--shutter S] SCENE...
//       the mean cost of drawing one of N frames, in microseconds
//
// SCENE... is what the control channel's `scene` command takes after the
// device index, e.g. `laser 0.5 --nm 532`.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "filter_model.h"
#include "scenes.h"

namespace {

int usage(const char* why) {
    std::fprintf(stderr,
                 "orb-scene-dump: %s\n"
                 "usage: orb-scene-dump [--shutter S] [--seconds T] [--seed N] [--frames K] SCENE...\n"
                 "       orb-scene-dump --spectrum SCENE...\n"
                 "       orb-scene-dump --curves I,J,...\n"
                 "       orb-scene-dump --time N [--shutter S] SCENE...\n",
                 why);
    return 2;
}

bool to_ulong(const char* s, unsigned long max, unsigned long* out) {
    char* end = nullptr;
    const unsigned long v = std::strtoul(s, &end, 10);
    if (!*s || *end || v > max) return false;
    *out = v;
    return true;
}

int print_curves(const std::string& list) {
    std::vector<std::size_t> filters;
    std::stringstream ss(list);
    for (std::string item; std::getline(ss, item, ',');) {
        unsigned long i;
        if (!to_ulong(item.c_str(), orbsim::kFilters - 1, &i)) return usage("bad filter index in --curves");
        filters.push_back(i);
    }
    const orbsim::FilterBank& bank = orbsim::FilterBank::get();
    std::printf("nm,qe");
    for (std::size_t i : filters) std::printf(",f%zu", i);
    std::printf("\n");
    for (std::size_t k = 0; k < orbsim::kGridPoints; k++) {
        std::printf("%g,%.6f", orbsim::grid_nm(k), orbsim::silicon_qe(orbsim::grid_nm(k)));
        for (std::size_t i : filters) std::printf(",%.6f", bank.curve(i)[k]);
        std::printf("\n");
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    unsigned long shutter = orbsim::kSaturatingShutter / 2, seed = 1, frames = 0, time_frames = 0;
    double seconds = 0;
    bool spectrum = false;
    std::vector<std::string> words;
    for (int k = 1; k < argc; k++) {
        const std::string a = argv[k];
        const bool has_value = k + 1 < argc;
        if (a == "--shutter" && has_value) {
            if (!to_ulong(argv[++k], 65535, &shutter)) return usage("bad --shutter");
        } else if (a == "--seconds" && has_value) {
            seconds = std::strtod(argv[++k], nullptr);
        } else if (a == "--seed" && has_value) {
            if (!to_ulong(argv[++k], ~0ul, &seed)) return usage("bad --seed");
        } else if (a == "--frames" && has_value) {
            if (!to_ulong(argv[++k], 10000, &frames)) return usage("bad --frames");
        } else if (a == "--time" && has_value) {
            if (!to_ulong(argv[++k], 100000000, &time_frames) || time_frames == 0) return usage("bad --time");
        } else if (a == "--curves" && has_value) {
            return print_curves(argv[++k]);
        } else if (a == "--spectrum") {
            spectrum = true;
        } else {
            words.assign(argv + k, argv + argc);
            break;
        }
    }
    orbsim::SceneSettings scene;
    std::string why;
    if (!orbsim::parse_scene(words, &scene, &why)) return usage(why.c_str());
    const auto s16 = static_cast<uint16_t>(shutter);

    if (spectrum) {
        const orbsim::Spectrum s = orbsim::scene_spectrum(scene);
        std::printf("kind,nm,power\n");
        for (std::size_t k = 0; k < orbsim::kGridPoints; k++)
            std::printf("continuum,%g,%.6g\n", orbsim::grid_nm(k), s.continuum[k]);
        for (const orbsim::SpectralLine& l : s.lines) std::printf("line,%g,%.6g\n", l.nm, l.power);
        return 0;
    }

    orbsim::FrameGenerator generate = orbsim::scene_frames(scene, seed);
    std::array<uint16_t, orbsim::kFilters> values{};
    if (time_frames) {
        const auto t0 = std::chrono::steady_clock::now();
        unsigned long checksum = 0;  // keeps the frames from being optimised away
        for (unsigned long n = 1; n <= time_frames; n++) {
            generate({static_cast<uint32_t>(n), s16, seconds + n * 1e-3}, values);
            checksum += values[n % orbsim::kFilters];
        }
        const double us = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count();
        std::printf("%.2f us per frame (%lu frames, checksum %lu)\n", us / time_frames, time_frames, checksum);
        return 0;
    }

    const auto mean = orbsim::scene_mean(scene, s16, seconds);
    std::vector<std::array<uint16_t, orbsim::kFilters>> drawn(frames);
    for (unsigned long n = 0; n < frames; n++)
        generate({static_cast<uint32_t>(n + 1), s16, seconds + n * orbsim::exposure_ms(s16) / 1000}, drawn[n]);
    std::printf("filter,centre_nm,mean");
    for (unsigned long n = 0; n < frames; n++) std::printf(",frame%lu", n + 1);
    std::printf("\n");
    for (std::size_t i = 0; i < orbsim::kFilters; i++) {
        std::printf("%zu,%.3f,%.3f", i, orbsim::filter_centre_nm(i), mean[i]);
        for (unsigned long n = 0; n < frames; n++) std::printf(",%u", drawn[n][i]);
        std::printf("\n");
    }
    return 0;
}
