#ifndef CSA_COMMON_CLAMP_CONTROL_HANDLER_CB_IF_HPP
#define CSA_COMMON_CLAMP_CONTROL_HANDLER_CB_IF_HPP

#include <string>

namespace csa_common {

/// Notifications of the clamp control handler to its owner, made on a
/// platform thread.
class ClampControlHandlerCbIf {
public:
    virtual ~ClampControlHandlerCbIf() = default;

    /// `clampName` is "Clamp15"; `state` true means on.
    virtual void ClampStateChangeCb(const std::string& clampName, bool state) = 0;
    virtual void ClampControlConnectionStateChangeCb(bool connected) = 0;
    virtual void ClampSubscribedCb() = 0;
};

}  // namespace csa_common

#endif  // CSA_COMMON_CLAMP_CONTROL_HANDLER_CB_IF_HPP
