#ifndef ARA_CORE_ERROR_CODE_HPP
#define ARA_CORE_ERROR_CODE_HPP

#include <cstdint>
#include <string>
#include <utility>

namespace ara::core {

/// One error of one error domain: the domain's name ("DiagServices"), the
/// error's name ("ZELK_ERROR_BUSY") and its value (23).
class ErrorCode {
public:
    ErrorCode(std::string domain, std::string name, std::int32_t value)
        : domain_(std::move(domain)), name_(std::move(name)), value_(value) {}

    std::int32_t Value() const noexcept { return value_; }
    const std::string& Domain() const noexcept { return domain_; }
    const std::string& Name() const noexcept { return name_; }
    /// The error's identification, "DiagServices::ZELK_ERROR_BUSY::23".
    std::string Message() const { return domain_ + "::" + name_ + "::" + std::to_string(value_); }

    bool operator==(const ErrorCode& other) const noexcept {
        return value_ == other.value_ && domain_ == other.domain_;
    }
    bool operator!=(const ErrorCode& other) const noexcept { return !(*this == other); }

private:
    std::string domain_;
    std::string name_;
    std::int32_t value_;
};

}  // namespace ara::core

#endif  // ARA_CORE_ERROR_CODE_HPP
