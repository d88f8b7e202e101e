#ifndef VEHICLE_SIM_TEST_VEHICLE_STATE_FIXTURE_HPP
#define VEHICLE_SIM_TEST_VEHICLE_STATE_FIXTURE_HPP

#include <chrono>
#include <string>

#include "sim_common/vehicle_keys.hpp"
#include "vehicle_sim/certificate_factory.hpp"
#include "vehicle_sim/vehicle_state.hpp"

namespace vehicle_sim::testing {

constexpr const char* kTestSecret = "test-secret";
constexpr const char* kTestVin = "WKV0SIM0000000042";

/// A complete state as init makes it: generation `counter` of the test secret.
inline VehicleState MakeState(std::uint16_t counter = 3, int baseCertificateDays = 200) {
    const auto now = std::chrono::system_clock::now();
    VehicleState state;
    state.vin = kTestVin;
    state.trainingCounter = counter;
    state.keys = sim_common::DeriveVehicleKeys(kTestSecret, kTestVin, counter);
    state.partNumber = "8W0907468A";
    const auto root = CertificateFactory::MakeRoot(kTestVin, now);
    const auto base = CertificateFactory::MakeBase(
        root, kTestVin, now, now + std::chrono::hours(24) * baseCertificateDays);
    state.rootKey = root.privateKey;
    state.rootCertificate = root.certificate;
    state.baseKey = base.privateKey;
    state.baseCertificate = base.certificate;
    return state;
}

}  // namespace vehicle_sim::testing

#endif  // VEHICLE_SIM_TEST_VEHICLE_STATE_FIXTURE_HPP
