#ifndef ARA_PHM_SUPERVISED_ENTITY_H
#define ARA_PHM_SUPERVISED_ENTITY_H

#include <atomic>
#include <cstdint>
#include <string>
#include <utility>

namespace ara::phm {

/// An entity watched by platform health management through the checkpoints it
/// reports. On a host every checkpoint is an alive report to systemd's watchdog
/// ("WATCHDOG=1"); without NOTIFY_SOCKET nothing is sent.
class SupervisedEntity {
public:
    explicit SupervisedEntity(std::string instance) : instance_(std::move(instance)) {}
    virtual ~SupervisedEntity() = default;
    SupervisedEntity(const SupervisedEntity&) = delete;
    SupervisedEntity& operator=(const SupervisedEntity&) = delete;

    /// `checkpointId` is a value of the entity's checkpoint enumeration.
    template <typename EnumT>
    void ReportCheckpoint(EnumT checkpointId) const {
        ReportCheckpointId(static_cast<std::uint32_t>(checkpointId));
    }

    const std::string& Instance() const { return instance_; }

protected:
    virtual void ReportCheckpointId(std::uint32_t checkpointId) const;

private:
    std::string instance_;
    // A failing report is logged once, not on every keep-alive period.
    mutable std::atomic<bool> failing_{false};
};

}  // namespace ara::phm

#endif  // ARA_PHM_SUPERVISED_ENTITY_H
