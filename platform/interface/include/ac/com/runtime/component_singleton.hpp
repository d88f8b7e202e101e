#ifndef AC_COM_RUNTIME_COMPONENT_SINGLETON_HPP
#define AC_COM_RUNTIME_COMPONENT_SINGLETON_HPP

#include <string>

namespace ac::com::runtime {

/// A component's hold on the process-wide ara::com runtime.
class Component_singleton {
public:
    Component_singleton(bool connectNow, std::string name);
    ~Component_singleton();
    Component_singleton(const Component_singleton&) = delete;
    Component_singleton& operator=(const Component_singleton&) = delete;
};

}  // namespace ac::com::runtime

#endif  // AC_COM_RUNTIME_COMPONENT_SINGLETON_HPP
