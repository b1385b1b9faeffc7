#ifndef ORB_BASE_EXCEPTION_H
#define ORB_BASE_EXCEPTION_H

#include <exception>

#include "orb_error_codes.h"

#define VARNEL_BASE_EXPORT __attribute__((visibility("default")))

// The one exception the device library throws. It carries nothing but its
// code; hosts read m_error_code and report minus it.
class VARNEL_BASE_EXPORT orb_base_exception : public std::exception {
public:
    explicit orb_base_exception(ORB_ERROR_CODE code);
    ~orb_base_exception() override {}

    // The enumerator's name, e.g. "vn_ec_initialization_required".
    const char* what() const noexcept override;

    ORB_ERROR_CODE error_code() const noexcept { return m_error_code; }

    const ORB_ERROR_CODE m_error_code;
};

#endif // ORB_BASE_EXCEPTION_H
