#ifndef CSA_COMMON_CLAMP_CONTROL_HANDLER_IF_HPP
#define CSA_COMMON_CLAMP_CONTROL_HANDLER_IF_HPP

namespace csa_common {

/// The ignition-state subscription as the client sees it. The bool operations
/// return true on SUCCESS.
class ClampControlHandlerIf {
public:
    virtual ~ClampControlHandlerIf() = default;

    /// Registers with the platform client and starts it.
    virtual bool ClampControlInit() = 0;
    /// One blocking subscription attempt.
    virtual bool Subscribe() = 0;
    /// Subscribes in the background, retrying until it succeeds.
    virtual bool SubscribeNB() = 0;
};

}  // namespace csa_common

#endif  // CSA_COMMON_CLAMP_CONTROL_HANDLER_IF_HPP
