#include "generic_uds_impl.hpp"

#include "csc_logging/csc_logging.hpp"
#include "sim_common/hex.hpp"

namespace vehicle_sim {

namespace uds = ac::dm::genericuds;
using csc_logging::CSCLogging;

GenericUdsImpl::GenericUdsImpl(Vehicle& vehicle, FailPoints& failPoints)
    : vehicle_(vehicle), failPoints_(failPoints) {}

GenericUdsImpl::~GenericUdsImpl() {
    StopOfferService();
}

uds::HandleMessageOutput GenericUdsImpl::HandleMessage(
    std::uint8_t sid, const std::vector<std::uint8_t>& requestData) {
    if (const auto hit = failPoints_.Take("HandleMessage")) {
        CSCLogging::Warning("HandleMessage: fail point raises " + hit->error);
        throw uds::MakeApplicationError(uds::GenericUDSServiceErrc::UDSServiceFailed);
    }
    auto response = vehicle_.HandleUds(sid, requestData);
    if (!response) {
        CSCLogging::Warning("HandleMessage: unsupported request " + sim_common::ToHex({sid}) + " " +
                            sim_common::ToHex(requestData));
        throw uds::MakeApplicationError(uds::GenericUDSServiceErrc::UDSServiceFailed);
    }
    return {std::move(*response)};
}

}  // namespace vehicle_sim
