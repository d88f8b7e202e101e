#ifndef BACKEND_TRANSACTION_TYPES_HPP
#define BACKEND_TRANSACTION_TYPES_HPP

#include <string>

namespace kelvane_client {

// The backend's transaction types. The same strings name the connection state,
// the MQTT topic, and the token and URL requests to the VI connector.

/// Connection state subscribed to and accepted.
inline const std::string ConnectionStateTransactionTypeId = "TTVI-Kelvane-C003";
/// MQTT topic of the backend's push messages.
inline const std::string MqttInitiationOperationTypeId = "TTVI-Kelvane-C003.CTzelkDlcInitiation";
inline const std::string ChallengeRequestOperationTypeId = "TTVI-Kelvane-C003.COzelkDlcChallenge";
inline const std::string DownloadRequestOperationTypeId = "TTVI-Kelvane-C003.COzelkDlcDownload";
inline const std::string StatusFeedbackOperationTypeId =
    "TTVI-Kelvane-C003.COzelkDlcStatusFeedback";

}  // namespace kelvane_client

#endif  // BACKEND_TRANSACTION_TYPES_HPP
