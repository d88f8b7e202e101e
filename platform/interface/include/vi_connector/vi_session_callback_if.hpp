#ifndef VI_CONNECTOR_VI_SESSION_CALLBACK_IF_HPP
#define VI_CONNECTOR_VI_SESSION_CALLBACK_IF_HPP

#include "vi_connector/vi_types.hpp"

namespace vi_connector {

class VISessionCallbackIf {
public:
    virtual ~VISessionCallbackIf() = default;
    /// Called exactly once per Start(), from a connector thread.
    virtual void VIConnectorStatus(SessionStatus status) = 0;
};

}  // namespace vi_connector

#endif  // VI_CONNECTOR_VI_SESSION_CALLBACK_IF_HPP
