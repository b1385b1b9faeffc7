// orb-scene-dump: the scene model's numbers as CSV on standard output, so
// that plots, and tests of the emulator itself, show the model rather than a
// copy of it.
//
//   orb-scene-dump [--unit U] [--shutter S] [--seconds T] [--seed N] [--frames K] SCENE...
//       filter,centre_nm,mean[,frame1..frameK]   (K noisy frames, one exposure apart;
//                                                 centre_nm is the nominal centre)
//   orb-scene-dump --spectrum SCENE...
//       kind,nm,power   the scene's light as it reaches the sensor (see scene_spectrum);
//                       kind: continuum (power per nm), or line (a line's power)
//   orb-scene-dump [--unit U] --curves I,J,...
//       nm,qe,fI,fJ,...  (the response of filters I, J, ... on the grid)
//   orb-scene-dump [--unit U] --filters
//       filter,centre_nm,fwhm_nm,peak,leak,dark_dn_per_ms,defect   (the unit's own filters)
//   orb-scene-dump --exposure S
//       the exposure in ms at shutter speed S
//   orb-scene-dump --time N [--shutter S] SCENE...
//       the mean cost of drawing one of N frames, in microseconds
//
// U is a unit: `nominal` (the default) or a sensor's identity bytes in hex, as
// the control channel's status shows them (C1234-7-20-33-1 is 109a472885).
// SCENE... is what the control channel's `scene` command takes after the
// device index, e.g. `laser 0.5 --nm 532` or `halogen + line --nm 600`.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "filter_model.h"
#include "scenes.h"
#include "units.h"

namespace {

int usage(const char* why) {
    std::fprintf(stderr,
                 "orb-scene-dump: %s\n"
                 "usage: orb-scene-dump [--unit U] [--shutter S] [--seconds T] [--seed N] [--frames K] SCENE...\n"
                 "       orb-scene-dump --spectrum SCENE...\n"
                 "       orb-scene-dump [--unit U] --curves I,J,...\n"
                 "       orb-scene-dump [--unit U] --filters\n"
                 "       orb-scene-dump --exposure S\n"
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

int print_curves(const orbsim::Unit& unit, const std::string& list) {
    std::vector<std::size_t> filters;
    std::stringstream ss(list);
    for (std::string item; std::getline(ss, item, ',');) {
        unsigned long i;
        if (!to_ulong(item.c_str(), orbsim::kFilters - 1, &i)) return usage("bad filter index in --curves");
        filters.push_back(i);
    }
    const orbsim::FilterBank& bank = unit.bank();
    std::printf("nm,qe");
    for (std::size_t i : filters) std::printf(",f%zu", i);
    std::printf("\n");
    for (std::size_t k = 0; k < orbsim::kGridPoints; k++) {
        std::printf("%g,%.6f", orbsim::grid_nm(k), orbsim::silicon_qe(orbsim::grid_nm(k)));
        for (std::size_t i : filters) std::printf(",%.6g", bank.curve(i)[k]);
        std::printf("\n");
    }
    return 0;
}

int print_filters(const orbsim::Unit& unit) {
    std::printf("filter,centre_nm,fwhm_nm,peak,leak,dark_dn_per_ms,defect\n");
    for (std::size_t i = 0; i < orbsim::kFilters; i++) {
        const char* defect = "";
        for (const auto& d : unit.defects())
            if (d.filter == i) defect = d.kind == d.Weak ? "weak" : d.kind == d.Dead ? "dead" : "hot";
        const orbsim::FilterShape& f = unit.shape(i);
        std::printf("%zu,%.4f,%.4f,%.5f,%.6f,%.3f,%s\n", i, f.centre_nm, f.width_nm, f.peak, f.leak,
                    unit.dark_current(i), defect);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    unsigned long shutter = orbsim::kSaturatingShutter / 2, seed = 1, frames = 0, time_frames = 0, exposure = 0;
    double seconds = 0;
    bool spectrum = false, filters = false, have_exposure = false;
    std::string curves;
    const orbsim::Unit* unit = &orbsim::Unit::nominal();
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
        } else if (a == "--exposure" && has_value) {
            if (!to_ulong(argv[++k], 65535, &exposure)) return usage("bad --exposure");
            have_exposure = true;
        } else if (a == "--unit" && has_value) {
            const std::string u = argv[++k];
            std::array<uint8_t, 5> identity;
            if (u == "nominal") unit = &orbsim::Unit::nominal();
            else if (orbsim::parse_identity_hex(u, &identity)) unit = &orbsim::Unit::of(identity);
            else return usage("--unit wants nominal or 10 hex digits of identity");
        } else if (a == "--curves" && has_value) {
            curves = argv[++k];
        } else if (a == "--filters") {
            filters = true;
        } else if (a == "--spectrum") {
            spectrum = true;
        } else {
            words.assign(argv + k, argv + argc);
            break;
        }
    }
    if (have_exposure) {
        std::printf("%.4f\n", orbsim::exposure_ms(static_cast<uint16_t>(exposure)));
        return 0;
    }
    if (!curves.empty()) return print_curves(*unit, curves);
    if (filters) return print_filters(*unit);

    orbsim::Scene scene;
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

    orbsim::FrameGenerator generate = orbsim::scene_frames(scene, seed, *unit);
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

    const auto mean = orbsim::scene_mean(scene, s16, seconds, *unit);
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
