#include "vehicle_sim/vehicle_state.hpp"

#include <botan/base64.h>
#include <botan/hash.h>

#include <fstream>
#include <map>
#include <sstream>

#include "sim_common/atomic_file.hpp"
#include "sim_common/hex.hpp"
#include "sim_common/parse_integer.hpp"

namespace vehicle_sim {
namespace {

constexpr const char* kHeader =
    "# kelvane-vehicle-sim key store: written atomically, do not edit\n";
constexpr const char* kFormat = "1";
constexpr const char* kChecksumKey = "checksum=";

std::string Checksum(const std::string& text) {
    const auto hash = Botan::HashFunction::create_or_throw("SHA-256");
    hash->update(text);
    const auto digest = hash->final();
    return sim_common::ToHex(std::vector<std::uint8_t>(digest.begin(), digest.end()));
}

std::string Base64(const std::vector<std::uint8_t>& bytes) {
    return Botan::base64_encode(bytes.data(), bytes.size());
}

bool FromBase64(const std::string& text, std::vector<std::uint8_t>& bytes) {
    try {
        const auto decoded = Botan::base64_decode(text);
        bytes.assign(decoded.begin(), decoded.end());
        return !bytes.empty();
    } catch (const std::exception&) {
        return false;
    }
}

bool Key(const std::string& hex, std::size_t size, std::vector<std::uint8_t>& key) {
    const auto bytes = sim_common::FromHex(hex);
    if (!bytes || bytes->size() != size) {
        return false;
    }
    key = *bytes;
    return true;
}

}  // namespace

std::string VehicleState::Serialize() const {
    std::ostringstream text;
    text << kHeader << "format=" << kFormat << "\n"
         << "vin=" << vin << "\n"
         << "training_counter=" << trainingCounter << "\n"
         << "identity_key=" << sim_common::ToHex(keys.identityKey) << "\n"
         << "mac_key=" << sim_common::ToHex(keys.macKey) << "\n"
         << "encryption_key=" << sim_common::ToHex(keys.encryptionKey) << "\n"
         << "part_number=" << partNumber << "\n"
         << "certificate_format=" << (pemCertificates ? "pem" : "der") << "\n"
         << "root_key=" << Base64(rootKey) << "\n"
         << "root_certificate=" << Base64(rootCertificate) << "\n"
         << "base_key=" << Base64(baseKey) << "\n"
         << "base_certificate=" << Base64(baseCertificate) << "\n";
    const std::string body = text.str();
    return body + kChecksumKey + Checksum(body) + "\n";
}

std::optional<VehicleState> VehicleState::Parse(const std::string& text, std::string& error) {
    const auto checksumAt = text.rfind(kChecksumKey);
    if (checksumAt == std::string::npos || (checksumAt > 0 && text[checksumAt - 1] != '\n')) {
        error = "no checksum line";
        return std::nullopt;
    }
    const std::string body = text.substr(0, checksumAt);
    std::string checksum = text.substr(checksumAt + std::string(kChecksumKey).size());
    if (!checksum.empty() && checksum.back() == '\n') {
        checksum.pop_back();
    }
    if (checksum != Checksum(body)) {
        error = "checksum mismatch (the file was changed or damaged)";
        return std::nullopt;
    }
    std::map<std::string, std::string> values;
    std::istringstream lines(body);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.empty() || line[0] == '#') {
            continue;
        }
        const auto equals = line.find('=');
        if (equals == std::string::npos) {
            error = "line without '=': " + line;
            return std::nullopt;
        }
        values[line.substr(0, equals)] = line.substr(equals + 1);
    }
    const auto value = [&values](const char* name) -> std::optional<std::string> {
        const auto it = values.find(name);
        return it == values.end() ? std::nullopt : std::optional<std::string>(it->second);
    };
    for (const char* name : {"format", "vin", "training_counter", "identity_key", "mac_key",
                             "encryption_key", "part_number", "certificate_format", "root_key",
                             "root_certificate", "base_key", "base_certificate"}) {
        if (!value(name)) {
            error = std::string("missing ") + name;
            return std::nullopt;
        }
    }
    if (*value("format") != kFormat) {
        error = "unsupported format " + *value("format");
        return std::nullopt;
    }
    VehicleState state;
    state.vin = *value("vin");
    state.partNumber = *value("part_number");
    const auto counter = sim_common::ParseInteger(*value("training_counter"), 0, 0xFFFF);
    const std::string format = *value("certificate_format");
    if (!sim_common::IsValidVin(state.vin)) {
        error = "bad vin";
    } else if (!counter) {
        error = "bad training_counter";
    } else if (!Key(*value("identity_key"), sim_common::VehicleKeys::kIdentityKeySize,
                    state.keys.identityKey) ||
               !Key(*value("mac_key"), sim_common::VehicleKeys::kMacKeySize, state.keys.macKey) ||
               !Key(*value("encryption_key"), sim_common::VehicleKeys::kEncryptionKeySize,
                    state.keys.encryptionKey)) {
        error = "bad key";
    } else if (format != "der" && format != "pem") {
        error = "bad certificate_format";
    } else if (!FromBase64(*value("root_key"), state.rootKey) ||
               !FromBase64(*value("root_certificate"), state.rootCertificate) ||
               !FromBase64(*value("base_key"), state.baseKey) ||
               !FromBase64(*value("base_certificate"), state.baseCertificate)) {
        error = "bad certificate or key encoding";
    }
    if (!error.empty()) {
        return std::nullopt;
    }
    state.trainingCounter = static_cast<std::uint16_t>(*counter);
    state.pemCertificates = format == "pem";
    return state;
}

std::optional<VehicleState> VehicleState::Load(const std::string& directory, std::string& error) {
    const std::string path = directory + "/" + kFileName;
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        error = "no key store at " + path + " (create one with 'kelvane-vehicle-sim init')";
        return std::nullopt;
    }
    std::ostringstream text;
    text << file.rdbuf();
    std::string reason;
    auto state = Parse(text.str(), reason);
    if (!state) {
        error = path + ": " + reason;
    }
    return state;
}

bool VehicleState::Save(const std::string& directory, std::string& error) const {
    return sim_common::WriteFileAtomically(directory + "/" + kFileName, Serialize(), error, 0600);
}

bool VehicleState::operator==(const VehicleState& other) const {
    return vin == other.vin && trainingCounter == other.trainingCounter && keys == other.keys &&
           partNumber == other.partNumber && pemCertificates == other.pemCertificates &&
           rootKey == other.rootKey && rootCertificate == other.rootCertificate &&
           baseKey == other.baseKey && baseCertificate == other.baseCertificate;
}

}  // namespace vehicle_sim
