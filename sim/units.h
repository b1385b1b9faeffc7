#ifndef ORB_SIM_UNITS_H
#define ORB_SIM_UNITS_H

// Each emulated sensor is a unit of its own: its filters are the nominal
// model's (filter_model.h) perturbed the way a real filter array differs from
// its design, by a variation drawn from a seed tied to the sensor's identity
// bytes. The same identity always gives the same unit; two identities give
// two units. The magnitudes are the model's own, not a measured device's:
//
//  - centres: a smooth shift across the array (a polynomial of degree 3 in
//    the filter index) of at most 2 nm, plus 0.1 nm of jitter per filter;
//  - widths and peak transmissions: a smooth drift of a few per cent plus
//    1-1.5 % per filter;
//  - two or three defective filters: weak (10-50 % of its transmission),
//    dead (no response at all) or hot (a dark current of 2-8 DN per ms of
//    exposure, which shows in the dark as well).

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "filter_model.h"

namespace orbsim {

class Unit {
public:
    struct Defect {
        enum Kind { Weak, Dead, Hot } kind;
        std::size_t filter;
        double amount;  // weak: the share of transmission kept; hot: DN per ms; dead: 0
    };

    // The filter model as designed: no variation, no defects.
    static const Unit& nominal();
    // The unit with these identity bytes, made the first time it is asked
    // for (a few tens of milliseconds) and kept for the life of the process.
    static const Unit& of(const std::array<uint8_t, 5>& identity);

    bool is_nominal() const { return nominal_; }
    // "nominal", or the identity bytes in hex ("109a472885").
    const std::string& name() const { return name_; }

    const FilterShape& shape(std::size_t filter) const { return shapes_[filter]; }
    const FilterBank& bank() const { return *bank_; }
    const std::vector<Defect>& defects() const { return defects_; }
    // What filter i reads per ms of exposure with no light, above the dark level.
    double dark_current(std::size_t filter) const { return dark_current_[filter]; }

    Unit(const Unit&) = delete;
    Unit& operator=(const Unit&) = delete;

private:
    Unit();  // nominal
    explicit Unit(const std::array<uint8_t, 5>& identity);

    bool nominal_;
    std::string name_;
    std::vector<FilterShape> shapes_;
    std::vector<Defect> defects_;
    std::array<double, kFilters> dark_current_{};
    std::unique_ptr<FilterBank> own_bank_;  // none for the nominal unit, which shares FilterBank::nominal()
    const FilterBank* bank_;
};

// The identity bytes in hex, as Unit::name() and the control channel's
// status show them.
std::string identity_hex(const std::array<uint8_t, 5>& identity);
// The reverse; false unless `text` is 10 hex digits.
bool parse_identity_hex(const std::string& text, std::array<uint8_t, 5>* out);

}  // namespace orbsim

#endif
