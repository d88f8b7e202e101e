#include "tee/generic_uds_services.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <utility>

#include "csc_logging/csc_logging.hpp"
#include "service_call.hpp"
#include "tee/access_status.hpp"
#include "unique_fd/unique_fd.hpp"

namespace qervo::tee {
namespace {

using csc_logging::CSCLogEntry;
using csc_logging::CSCLogging;

constexpr std::uint8_t kReadDataByIdentifier = 0x22;
const std::vector<std::uint8_t> kSparePartNumberIdentifier{0xF1, 0x87};

/// The whole file, byte for byte; nothing when it cannot be opened or read.
std::optional<std::string> ReadWholeFile(const std::string& path) {
    const unique_fd::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        return std::nullopt;
    }
    std::string content;
    char buffer[4096];
    for (;;) {
        const ssize_t count = ::read(fd.Get(), buffer, sizeof(buffer));
        if (count > 0) {
            content.append(buffer, static_cast<std::size_t>(count));
        } else if (count == 0) {
            break;
        } else if (errno != EINTR) {
            return std::nullopt;
        }
    }
    return content;
}

}  // namespace

std::string TesmoIdPath() {
#ifdef KELVANE_TESMO_ID_PATH_OVERRIDE
    const char* overridden = std::getenv("KELVANE_TESMO_ID_PATH");
    if (overridden != nullptr && *overridden != '\0') {
        return overridden;
    }
#endif
    return TESMO_ID_PATH;
}

GenericUdsServices::GenericUdsServices(std::string tesmoIdPath, ServiceBinding<Proxy> binding)
    : tesmoIdPath_(std::move(tesmoIdPath)), service_("GenericUdsService", std::move(binding)) {}

GenericUdsServices::~GenericUdsServices() = default;

void GenericUdsServices::Initialize() {
    CSCLogging::Info("GenericUdsServices::Initialize()");
    service_.Start();
}

bool GenericUdsServices::IsReady() const {
    return service_.IsReady();
}

std::uint8_t GenericUdsServices::ecu_get_part_number(std::string& partNumber) {
    const auto proxy = service_.Current();
    if (!proxy) {
        CSCLogging::Error("ecu_get_part_number_from_dm() Error! genericuds service is not ready");
        return access_status::kNotAvailable;
    }
    return CallService("ecu_get_part_number_from_dm() Exception=", [&] {
        const auto response =
            proxy->HandleMessage(kReadDataByIdentifier, kSparePartNumberIdentifier)
                .get()
                .responseData;
        // (1) the record: the response repeats the data identifier before it.
        auto first = response.begin();
        if (response.size() >= kSparePartNumberIdentifier.size() &&
            std::equal(kSparePartNumberIdentifier.begin(), kSparePartNumberIdentifier.end(),
                       response.begin())) {
            first += static_cast<std::ptrdiff_t>(kSparePartNumberIdentifier.size());
        }
        std::string text(first, response.end());
        CSCLogging::Info(CSCLogEntry() << "ecu_get_part_number_from_dm(1) part number: " << text);
        // (2) the text: the record is padded with blanks or NULs to its fixed length.
        const auto end = text.find_last_not_of(std::string(" \0", 2));
        text.erase(end == std::string::npos ? 0 : end + 1);
        CSCLogging::Info(CSCLogEntry() << "ecu_get_part_number_from_dm(2) part number: " << text);
        partNumber = text;
    });
}

std::uint8_t GenericUdsServices::ecu_get_diagnostic_id(std::string& diagnosticId) {
    diagnosticId = kDiagnosticId;
    return access_status::kOk;
}

std::uint8_t GenericUdsServices::ecu_get_tesmo_id_string(std::string& tesmoIdString) {
    auto content = ReadWholeFile(tesmoIdPath_);
    if (!content) {
        CSCLogging::Error(CSCLogEntry()
                          << "ecu_get_tesmo_id_string() Error! can't open file " << tesmoIdPath_);
        return access_status::kIdentityFileUnreadable;
    }
    tesmoIdString = std::move(*content);
    return access_status::kOk;
}

}  // namespace qervo::tee
