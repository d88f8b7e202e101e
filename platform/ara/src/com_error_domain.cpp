#include "ara/com/com_error_domain.hpp"

namespace ara::com {
namespace {

const char* NameOf(ComErrc errc) {
    switch (errc) {
        case ComErrc::kServiceNotAvailable:
            return "kServiceNotAvailable";
        case ComErrc::kNetworkBindingFailure:
            return "kNetworkBindingFailure";
        case ComErrc::kServiceNotOffered:
            return "kServiceNotOffered";
        case ComErrc::kCommunicationLinkError:
            return "kCommunicationLinkError";
    }
    return "kUnknown";
}

}  // namespace

ComException::ComException(ComErrc errc, const std::string& cause)
    : ara::core::Exception(
          ara::core::ErrorCode("Com", NameOf(errc), static_cast<std::int32_t>(errc)))
    , errc_(errc)
    , text_(Error().Message() + ": " + cause) {}

}  // namespace ara::com
