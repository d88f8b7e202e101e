#ifndef PROCESS_LIFECYCLE_ADAPTER_PROCESS_LIFECYCLE_ADAPTER_CALLBACK_IF_HPP
#define PROCESS_LIFECYCLE_ADAPTER_PROCESS_LIFECYCLE_ADAPTER_CALLBACK_IF_HPP

#include <cstdint>

namespace process_lifecycle_adapter {

/// What the process lifecycle adapter needs of the application.
class ProcessLifecycleAdapterCallbackIf {
public:
    virtual ~ProcessLifecycleAdapterCallbackIf() = default;
    /// Termination was requested (SIGTERM, SIGINT); called once.
    virtual void ProcessLifecycleAdapterTerminate() = 0;  // any thread
    /// Asked once per keep-alive period; alive is reported only while it is 0.
    virtual std::uint8_t ProcessLifecycleAdapterGetHealthStatus() = 0;  // 0 = healthy
};

}  // namespace process_lifecycle_adapter

#endif  // PROCESS_LIFECYCLE_ADAPTER_PROCESS_LIFECYCLE_ADAPTER_CALLBACK_IF_HPP
