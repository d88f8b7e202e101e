#include "ara/phm/supervised_entity.h"

#include <systemd/sd-daemon.h>

#include <cstring>

#include "csc_logging/csc_logging.hpp"

namespace ara::phm {

void SupervisedEntity::ReportCheckpointId(std::uint32_t checkpointId) const {
    const int result = sd_notify(0, "WATCHDOG=1");
    if (result >= 0) {
        if (failing_.exchange(false)) {
            csc_logging::CSCLogging::Info(csc_logging::CSCLogEntry()
                                          << "SupervisedEntity: " << instance_
                                          << " checkpoints reported again");
        }
        return;
    }
    if (!failing_.exchange(true)) {
        csc_logging::CSCLogging::Warning(csc_logging::CSCLogEntry()
                                         << "SupervisedEntity: " << instance_ << " checkpoint "
                                         << checkpointId
                                         << " not reported: " << std::strerror(-result));
    }
}

}  // namespace ara::phm
