// The least work one key update takes, timed in-process: the challenge GET,
// the seven identity reads, the download POST, HandleDlc, the seven reads
// again (the feedback reports the new training counter and hashes) and the
// feedback POST, made back to back through the key-management facade and,
// over plain HTTP, the client's own backend connection; over HTTPS libcurl
// makes the three exchanges with mutual TLS, each on a new connection that
// resumes the TLS session of the one before (KELVANE_FLOOR_CURL_VERBOSE=1
// shows it). Without the client's main loop,
// triggers, certificate check and logging. run.sh compares the client's
// trigger-to-feedback time with it.
//
//   bench_update_floor http://HOST:PORT TOKEN
//   bench_update_floor https://HOST:PORT TOKEN CA_FILE CERT_FILE KEY_FILE
//
// Commands on standard input, one answer line each on standard output:
//   ready  waits (at most 20 s) until the vehicle's services answer: "ready"
//   run    one update: "ok TOTAL CHALLENGE READS DOWNLOAD HANDLE REREADS FEEDBACK"
//          (microseconds), or "error REASON"
#include <curl/curl.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
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
    std::string backend;  // http://host:port or https://host:port
    std::string token;
    std::string caFile;  // with https: mutual TLS
    std::string certFile;
    std::string keyFile;
};

std::size_t Collect(char* data, std::size_t size, std::size_t count, void* out) {
    static_cast<std::string*>(out)->append(data, size * count);
    return size * count;
}

// The three exchanges with libcurl over mutual TLS, with the headers the
// client sends. One easy handle keeps what libcurl keeps between transfers
// (the TLS session, TLS 1.3 tickets too, and the CA store); each exchange
// still has a connection of its own, as the server closes every one.
class CurlExchanges {
public:
    explicit CurlExchanges(const Settings& settings) : curl_(curl_easy_init()) {
        curl_easy_setopt(curl_, CURLOPT_CAINFO, settings.caFile.c_str());
        curl_easy_setopt(curl_, CURLOPT_SSLCERT, settings.certFile.c_str());
        curl_easy_setopt(curl_, CURLOPT_SSLKEY, settings.keyFile.c_str());
        curl_easy_setopt(curl_, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl_, CURLOPT_FORBID_REUSE, 1L);
        curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, Collect);
        authorization_ = "Authorization: Bearer " + settings.token;
        if (const char* verbose = std::getenv("KELVANE_FLOOR_CURL_VERBOSE")) {
            curl_easy_setopt(curl_, CURLOPT_VERBOSE, verbose[0] == '1' ? 1L : 0L);
        }
    }
    ~CurlExchanges() { curl_easy_cleanup(curl_); }
    CurlExchanges(const CurlExchanges&) = delete;
    CurlExchanges& operator=(const CurlExchanges&) = delete;

    /// The HTTP status (0 when the exchange failed); the body in `body`.
    long Exchange(const std::string& url, const char* contentType, const char* accept,
                  const std::string* post, std::string& body) {
        curl_slist* headers = nullptr;
        headers = curl_slist_append(headers, (std::string("Content-Type: ") + contentType).c_str());
        if (accept != nullptr) {
            headers = curl_slist_append(headers, (std::string("Accept: ") + accept).c_str());
        }
        headers = curl_slist_append(headers, authorization_.c_str());
        headers = curl_slist_append(headers, "Connection: close");
        curl_easy_setopt(curl_, CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(curl_, CURLOPT_WRITEDATA, &body);
        if (post != nullptr) {
            curl_easy_setopt(curl_, CURLOPT_POSTFIELDS, post->data());
            curl_easy_setopt(curl_, CURLOPT_POSTFIELDSIZE, static_cast<long>(post->size()));
        } else {
            curl_easy_setopt(curl_, CURLOPT_HTTPGET, 1L);
        }
        long status = 0;
        if (curl_easy_perform(curl_) != CURLE_OK ||
            curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &status) != CURLE_OK) {
            status = 0;
        }
        curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, nullptr);
        curl_slist_free_all(headers);
        return status;
    }

private:
    CURL* curl_;
    std::string authorization_;
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
        if (!settings_.caFile.empty()) {
            curl_ = std::make_unique<CurlExchanges>(settings_);
        }
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
        if (!Challenge(challenge) || challenge.size() != 32) {
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
        if (!Download(params, container) || container.empty()) {
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

        if (!Feedback(feedback)) {
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

    // Content types as the client sends and expects them.
    bool Challenge(std::string& challenge) {
        if (!curl_) {
            return backend_.ChallengeRequest(settings_.token, Url("challenge"), challenge);
        }
        std::string body;
        if (curl_->Exchange(
                Url("challenge"), "application/TTVI_CO_ZelkDlcChallengeRequest_v1+proto",
                "application/TTVI_CT_zelkDlcChallengeResponse_v3+proto", nullptr, body) != 200) {
            return false;
        }
        challenge = backend_.ParseReceivedChallenge(body);
        return true;
    }

    bool Download(const kelvane_client::RequestParams& params, std::string& container) {
        if (!curl_) {
            return backend_.DownloadRequest(settings_.token, params, Url("download"), container);
        }
        const std::string request = backend_.CreateDLCDownloadRequest(params);
        std::string body;
        if (curl_->Exchange(Url("download"), "application/TTVI_CO_zelkDlcRequest_v3+proto",
                            "application/TTVI_CT_zelkDlcResponse_v3+proto", &request,
                            body) != 200) {
            return false;
        }
        container = backend_.ParseDlcDownloadResponse(body);
        return true;
    }

    bool Feedback(const kelvane_client::RequestParams& params) {
        if (!curl_) {
            return backend_.SendStatusFeedback(params, settings_.token, Url("feedback")) == 0;
        }
        const std::string request = backend_.CreateStatusUpdateRequest(params);
        std::string body;
        const long status = curl_->Exchange(
            Url("feedback"), "application/TTVI_CO_ZelkDlcStatusFeedbackRequest_v3+proto", nullptr,
            &request, body);
        return status == 200 || status == 204;
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
    std::unique_ptr<CurlExchanges> curl_;  // over HTTPS only
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3 && argc != 6) {
        std::fprintf(stderr,
                     "usage: %s http://HOST:PORT TOKEN\n"
                     "       %s https://HOST:PORT TOKEN CA_FILE CERT_FILE KEY_FILE\n"
                     "(commands on stdin: ready, run)\n",
                     argv[0], argv[0]);
        return 2;
    }
    csc_logging::CSCLogging::InitLogging("KVFL", "update floor");
    curl_global_init(CURL_GLOBAL_DEFAULT);
    Settings settings;
    settings.backend = argv[1];
    settings.token = argv[2];
    if (argc == 6) {
        settings.caFile = argv[3];
        settings.certFile = argv[4];
        settings.keyFile = argv[5];
    }
    Floor floor(std::move(settings));
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
