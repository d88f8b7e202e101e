#ifndef AC_COM_RUNTIME_COMPONENT_SINGLETON_HPP
#define AC_COM_RUNTIME_COMPONENT_SINGLETON_HPP

#include <memory>
#include <string>

namespace ara::com::internal {
class Runtime;
}

namespace ac::com::runtime {

/// A component's hold on the ara::com runtime: the bus connection and the
/// thread that finds services and serves skeletons. The runtime is shared by
/// the whole process and lives while any component, search or offered
/// skeleton holds it.
class Component_singleton {
public:
    /// `connectNow`: connect to the bus at once instead of on the first find or
    /// offer. `name` names the component in log lines (may be empty).
    Component_singleton(bool connectNow, std::string name);
    ~Component_singleton();
    Component_singleton(const Component_singleton&) = delete;
    Component_singleton& operator=(const Component_singleton&) = delete;

    const std::string& Name() const { return name_; }

private:
    std::string name_;
    std::shared_ptr<ara::com::internal::Runtime> runtime_;
};

}  // namespace ac::com::runtime

#endif  // AC_COM_RUNTIME_COMPONENT_SINGLETON_HPP
