#ifndef VI_CONNECTOR_VI_SERVICE_CONTROLLER_CALLBACK_IF_HPP
#define VI_CONNECTOR_VI_SERVICE_CONTROLLER_CALLBACK_IF_HPP

#include <cstdint>
#include <string>

#include "vi_connector/vi_types.hpp"

namespace vi_connector {

class VIServiceControllerCallbackIf {
public:
    /// Connection state of a subscribed transaction type: 2 connected,
    /// 1 not connected (3 is also a connected state).
    struct SCConnectionStateUpdate {
        std::string transactionTypeId;
        std::uint8_t state = 1;
    };

    virtual ~VIServiceControllerCallbackIf() = default;
    virtual void VISCSessionStatus(SCSessionStatus status) = 0;
    virtual void VISCInvocationURL(SCUrlResult result) = 0;
    virtual void VISCConnectionState(SCConnectionStateUpdate update) = 0;
};

}  // namespace vi_connector

#endif  // VI_CONNECTOR_VI_SERVICE_CONTROLLER_CALLBACK_IF_HPP
