#ifndef TEE_TEST_MOCK_ACCESSORS_HPP
#define TEE_TEST_MOCK_ACCESSORS_HPP

#include <gmock/gmock.h>

#include "tee/diagnostic_services_if.hpp"
#include "tee/generic_uds_services_if.hpp"
#include "tee/typeid_access_service_if.hpp"

namespace qervo::tee {

class MockDiagnosticServices : public DiagnosticServicesIf {
public:
    MOCK_METHOD(void, Initialize, (), (override));
    MOCK_METHOD(bool, IsReady, (), (const, override));
    MOCK_METHOD(std::uint8_t, zelk_handle_dlc, (const std::vector<std::uint8_t>&), (override));
    MOCK_METHOD(std::uint8_t, zelk_get_identity_hash,
                (std::vector<std::uint8_t>&, const std::vector<std::uint8_t>&), (override));
    MOCK_METHOD(std::uint8_t, zelk_get_pss_hash, (std::vector<std::uint8_t>&), (override));
    MOCK_METHOD(std::uint8_t, zelk_get_training_counter, (std::uint16_t&), (override));
    MOCK_METHOD(std::uint8_t, zelk_get_zelk_vin, (std::vector<std::uint8_t>&), (override));
};

class MockTypeidAccessService : public TypeidAccessServiceIf {
public:
    MOCK_METHOD(void, Initialize, (), (override));
    MOCK_METHOD(bool, IsReady, (), (const, override));
    MOCK_METHOD(std::uint8_t, zelk_get_certificate, (const std::string&, std::string&), (override));
};

class MockGenericUdsServices : public GenericUdsServicesIf {
public:
    MOCK_METHOD(void, Initialize, (), (override));
    MOCK_METHOD(bool, IsReady, (), (const, override));
    MOCK_METHOD(std::uint8_t, ecu_get_part_number, (std::string&), (override));
    MOCK_METHOD(std::uint8_t, ecu_get_diagnostic_id, (std::string&), (override));
    MOCK_METHOD(std::uint8_t, ecu_get_tesmo_id_string, (std::string&), (override));
};

}  // namespace qervo::tee

#endif  // TEE_TEST_MOCK_ACCESSORS_HPP
