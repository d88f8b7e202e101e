#ifndef ARA_CORE_EXCEPTION_HPP
#define ARA_CORE_EXCEPTION_HPP

#include <exception>
#include <string>

#include "ara/core/error_code.hpp"

namespace ara::core {

/// Base of every exception the platform throws; what() is the error's identification.
class Exception : public std::exception {
public:
    explicit Exception(ErrorCode error) : error_(std::move(error)), text_(error_.Message()) {}

    const ErrorCode& Error() const noexcept { return error_; }
    const char* what() const noexcept override { return text_.c_str(); }

private:
    ErrorCode error_;
    std::string text_;
};

}  // namespace ara::core

#endif  // ARA_CORE_EXCEPTION_HPP
