// Response bodies as the backend (or anything answering in its place) might
// send them, decoded by BackendConnection into the challenge and the DLC
// container. What a body that parses gives must be a value the message can
// carry: it goes back into a message and out again unchanged. A body that does
// not parse gives whatever the field was left with, which need not be.

#include <google/protobuf/stubs/logging.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "backend/backend_connection.hpp"
#include "fuzz_check.hpp"
#include "fuzz_logging.hpp"
#include "proto/TTVI_CT_zelkDlcChallengeResponse_v3.pb.h"
#include "proto/TTVI_CT_zelkDlcResponse_v3.pb.h"

namespace {

using fuzz::Require;
using kelvane_client::BackendConnection;
namespace proto = domain::backend::zelkDlc::proto;

void CheckChallenge(const std::string& challenge) {
    if (challenge.empty()) {
        return;
    }
    proto::zelkDlcChallengeResponseType message;
    message.set_tesmochallenge(challenge);
    std::string bytes;
    Require(message.SerializeToString(&bytes), "a returned challenge serialises");
    proto::zelkDlcChallengeResponseType again;
    Require(again.ParseFromString(bytes) && again.tesmochallenge() == challenge,
            "a returned challenge survives a round trip");
}

void CheckContainer(const std::string& container) {
    if (container.empty()) {
        return;
    }
    proto::zelkDlcResponseType message;
    message.set_downloadcontainer(container);
    std::string bytes;
    Require(message.SerializeToString(&bytes), "a returned container serialises");
    proto::zelkDlcResponseType again;
    Require(again.ParseFromString(bytes) && again.downloadcontainer() == container,
            "a returned container survives a round trip");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    fuzz::QuietLogging();
    // Bodies with broken UTF-8 would make the runtime log each one.
    google::protobuf::SetLogHandler(nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string payload(reinterpret_cast<const char*>(data), size);
    const BackendConnection sut(nullptr);

    const auto challenge = sut.ParseReceivedChallenge(payload);
    if (proto::zelkDlcChallengeResponseType().ParseFromString(payload)) {
        CheckChallenge(challenge);
    }
    const auto container = sut.ParseDlcDownloadResponse(payload);
    if (proto::zelkDlcResponseType().ParseFromString(payload)) {
        CheckContainer(container);
    }
    return 0;
}
