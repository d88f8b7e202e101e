// The least work one key update takes, timed in-process: the challenge GET,
// the seven identity reads, the download POST, HandleDlc, the seven reads
// again (the feedback reports the new training counter and hashes) and the
// feedback POST, made back to back through the client's own backend
// connection and key-management facade, without the client's main loop,
// triggers, certificate check and logging. run.sh compares the client's
// trigger-to-feedback time with it.
//
// Commands on standard input, one answer line each on standard output:
//   ready  waits (at most 20 s) until the vehicle's services answer: "ready"
//   run    one update: "ok TOTAL CHALLENGE READS DOWNLOAD HANDLE REREADS FEEDBACK"
//          (microseconds), or "error REASON"
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "backend/backend_connection.hpp"
#include "backend/request_params.hpp"
#include "base64_utils/base64_utils.hpp"
#include "csc_logging/csc_logging.hpp"
#include "tee/zelk_online_update_client.hpp"
#include "vi_connector/vi_connector.hpp"

namespace {

using Clock = std::chrono::steady_clock;
using qervo::tee::ClientError;

struct Settings {
    std::string backend;  // http://host:port
    std::string token;
};

long long Microseconds(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration_cast<std::chrono::microseconds>(to - from).count();
}

std::vector<std::uint8_t> HexToBytes(const std::string& hex) {
    std::vector<std::uint8_t> bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

class Floor {
public:
    explicit Floor(Settings settings)
        : settings_(std::move(settings))
        , connector_(std::make_shared<vi_connector::VIConnector>(nullptr))
        , backend_(connector_)
        , tee_(std::make_shared<qervo::tee::ZELKOnlineUpdateClient>()) {
        tee_->init();
    }

    bool WaitUntilReady() {
        const auto deadline = Clock::now() + std::chrono::seconds(20);
        while (Clock::now() < deadline) {
            std::uint16_t counter = 0;
            std::string diagnosticId;
            std::string certificate;
            if (tee_->zelk_get_training_counter(counter) == ClientError::CLIENT_OK &&
                tee_->ecu_get_diagnostic_id(diagnosticId) == ClientError::CLIENT_OK &&
                tee_->zelk_get_certificate(qervo::tee::ZELK_BASE, certificate) ==
                    ClientError::CLIENT_OK) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }

    /// One update; the answer line.
    std::string Run() {
        const auto start = Clock::now();
        std::string challenge;
        if (!backend_.ChallengeRequest(settings_.token, Url("challenge"), challenge) ||
            challenge.size() != 32) {
            return "error challenge";
        }
        const auto challenged = Clock::now();

        kelvane_client::RequestParams params;
        params.tesmoChallenge = challenge;
        if (!ReadIdentity(params)) {
            return "error identity read";
        }
        const auto identified = Clock::now();

        std::string container;
        if (!backend_.DownloadRequest(settings_.token, params, Url("download"), container) ||
            container.empty()) {
            return "error download";
        }
        const auto downloaded = Clock::now();

        if (tee_->zelk_handle_dlc(base64_utils::Base64Utils::Base64DecodeToBinaryVector(
                container)) != ClientError::CLIENT_OK) {
            return "error HandleDlc";
        }
        const auto handled = Clock::now();

        kelvane_client::RequestParams feedback;
        feedback.tesmoChallenge = challenge;
        if (!ReadIdentity(feedback)) {
            return "error identity read after HandleDlc";
        }
        const auto reread = Clock::now();

        if (backend_.SendStatusFeedback(feedback, settings_.token, Url("feedback")) != 0) {
            return "error feedback";
        }
        const auto finished = Clock::now();

        return "ok " + std::to_string(Microseconds(start, finished)) + " " +
               std::to_string(Microseconds(start, challenged)) + " " +
               std::to_string(Microseconds(challenged, identified)) + " " +
               std::to_string(Microseconds(identified, downloaded)) + " " +
               std::to_string(Microseconds(downloaded, handled)) + " " +
               std::to_string(Microseconds(handled, reread)) + " " +
               std::to_string(Microseconds(reread, finished));
    }

private:
    std::string Url(const char* exchange) const {
        return settings_.backend + "/zelk/dlc/" + exchange;
    }

    bool ReadIdentity(kelvane_client::RequestParams& params) {
        const auto ok = [](ClientError error) { return error == ClientError::CLIENT_OK; };
        return ok(tee_->ecu_get_diagnostic_id(params.diagnosticID)) &&
               ok(tee_->ecu_get_part_number(params.partNumber)) &&
               ok(tee_->ecu_get_tesmo_id_string(params.tesmoIdString)) &&
               ok(tee_->zelk_get_zelk_vin(params.zelkVin)) &&
               ok(tee_->zelk_get_training_counter(params.trainingCounter)) &&
               ok(tee_->zelk_get_pss_hash(params.pssHash)) &&
               ok(tee_->zelk_get_identity_hash(params.identityHash,
                                               HexToBytes(params.tesmoChallenge)));
    }

    Settings settings_;
    std::shared_ptr<vi_connector::VIConnector> connector_;
    kelvane_client::BackendConnection backend_;
    std::shared_ptr<qervo::tee::ZELKOnlineUpdateClient> tee_;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s http://HOST:PORT TOKEN  (commands on stdin: ready, run)\n",
                     argv[0]);
        return 2;
    }
    csc_logging::CSCLogging::InitLogging("KVFL", "update floor");
    Floor floor(Settings{argv[1], argv[2]});
    std::string command;
    while (std::getline(std::cin, command)) {
        if (command == "ready") {
            std::cout << (floor.WaitUntilReady() ? "ready" : "error services not ready")
                      << std::endl;
        } else if (command == "run") {
            std::cout << floor.Run() << std::endl;
        } else {
            std::cout << "error unknown command '" << command << "'" << std::endl;
        }
    }
    return 0;
}
