#ifndef ORB_SPECTRUM_BOUNDED_MINIMUM_H
#define ORB_SPECTRUM_BOUNDED_MINIMUM_H

#include <Eigen/Dense>
#include <LBFGSB.h>

#include <exception>

namespace orbspectrum {

// The minimum of f within the bounds lo..hi, from x (L-BFGS-B, LBFGS++).
template <typename F>
void minimise(F& f, Eigen::VectorXd& x, const Eigen::VectorXd& lo, const Eigen::VectorXd& hi, int iterations) {
    LBFGSpp::LBFGSBParam<double> param;
    param.epsilon = 1e-9;
    param.epsilon_rel = 1e-9;
    param.max_iterations = iterations;
    LBFGSpp::LBFGSBSolver<double> solver(param);
    double fx = 0;
    try {
        solver.minimize(f, x, fx, lo, hi);
    } catch (const std::exception&) {
        // The line search could not improve on x any further (rounding near
        // the minimum): x is the best point found, which is what is wanted.
    }
}

}  // namespace orbspectrum

#endif
