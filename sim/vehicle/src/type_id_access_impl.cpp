#include "type_id_access_impl.hpp"

#include "csc_logging/csc_logging.hpp"

namespace vehicle_sim {

namespace typeid_access = zelk::interfaces::typeidaccess;
using csc_logging::CSCLogging;

TypeIdAccessImpl::TypeIdAccessImpl(Vehicle& vehicle, FailPoints& failPoints)
    : vehicle_(vehicle), failPoints_(failPoints) {}

TypeIdAccessImpl::~TypeIdAccessImpl() {
    StopOfferService();
}

std::vector<std::uint8_t> TypeIdAccessImpl::CertificateOrThrow(std::uint16_t typeId) const {
    auto certificate = vehicle_.Certificate(typeId);
    if (!certificate) {
        CSCLogging::Warning(csc_logging::CSCLogEntry()
                            << "GetCertificate: no certificate of type id " << typeId);
        throw typeid_access::MakeApplicationError(
            typeid_access::TypeIdAccessErrc::ZELK_ERROR_INVALID_TYPEID);
    }
    return std::move(*certificate);
}

typeid_access::GetCertificateOutput TypeIdAccessImpl::GetCertificate(std::uint16_t typeId) {
    if (const auto hit = failPoints_.Take("GetCertificate")) {
        CSCLogging::Warning("GetCertificate: fail point raises " + hit->error);
        throw typeid_access::MakeApplicationError(
            static_cast<typeid_access::TypeIdAccessErrc>(hit->code));
    }
    return {CertificateOrThrow(typeId)};
}

typeid_access::GetDataOutput TypeIdAccessImpl::GetData(std::uint16_t typeId) {
    return {CertificateOrThrow(typeId)};
}

typeid_access::GetKeyOutput TypeIdAccessImpl::GetKey(std::uint16_t) {
    // Keys never leave the key-management system.
    throw typeid_access::MakeApplicationError(
        typeid_access::TypeIdAccessErrc::ZELK_ERROR_TYPEID_NOT_SUPPORTED);
}

typeid_access::GetMetaDataOutput TypeIdAccessImpl::GetMetaData(std::uint16_t typeId) {
    return {typeId, static_cast<std::uint32_t>(CertificateOrThrow(typeId).size())};
}

void TypeIdAccessImpl::IsTypeIdReady(std::uint16_t typeId) {
    CertificateOrThrow(typeId);
}

}  // namespace vehicle_sim
