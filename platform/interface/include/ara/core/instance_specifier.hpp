#ifndef ARA_CORE_INSTANCE_SPECIFIER_HPP
#define ARA_CORE_INSTANCE_SPECIFIER_HPP

#include <string>
#include <string_view>

namespace ara::core {

/// Names one port of a service in the deployment.
class InstanceSpecifier {
public:
    explicit InstanceSpecifier(std::string_view metaModelIdentifier)
        : identifier_(metaModelIdentifier) {}

    std::string_view ToString() const noexcept { return identifier_; }

    bool operator==(const InstanceSpecifier& other) const noexcept {
        return identifier_ == other.identifier_;
    }
    bool operator!=(const InstanceSpecifier& other) const noexcept { return !(*this == other); }

private:
    std::string identifier_;
};

}  // namespace ara::core

#endif  // ARA_CORE_INSTANCE_SPECIFIER_HPP
