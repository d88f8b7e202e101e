#ifndef ARA_PHM_SUPERVISED_ENTITY_H
#define ARA_PHM_SUPERVISED_ENTITY_H

#include <cstdint>
#include <string>

namespace ara::phm {

/// An entity watched by platform health management through its checkpoints.
class SupervisedEntity {
public:
    explicit SupervisedEntity(std::string instance);
    virtual ~SupervisedEntity();
    SupervisedEntity(const SupervisedEntity&) = delete;
    SupervisedEntity& operator=(const SupervisedEntity&) = delete;

    template <typename EnumT>
    void ReportCheckpoint(EnumT checkpointId) const {
        ReportCheckpointId(static_cast<std::uint32_t>(checkpointId));
    }

protected:
    virtual void ReportCheckpointId(std::uint32_t checkpointId) const;
};

}  // namespace ara::phm

#endif  // ARA_PHM_SUPERVISED_ENTITY_H
