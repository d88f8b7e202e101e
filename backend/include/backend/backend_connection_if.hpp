#ifndef BACKEND_BACKEND_CONNECTION_IF_HPP
#define BACKEND_BACKEND_CONNECTION_IF_HPP

#include <string>

#include "backend/request_params.hpp"

namespace kelvane_client {

/// The three backend exchanges of one update. The challenge and container
/// are assigned only on success, so callers judge the outcome by whether they
/// are non-empty.
class BackendConnectionIf {
public:
    virtual ~BackendConnectionIf() = default;

    /// True on success.
    virtual bool ChallengeRequest(const std::string& token, const std::string& url,
                                  std::string& challenge) = 0;
    /// True on success; `container` gets the Base64 text of the DLC container.
    virtual bool DownloadRequest(const std::string& token, const RequestParams& params,
                                 const std::string& url, std::string& container) = 0;
    /// 0 on success, 1 on failure.
    virtual int SendStatusFeedback(const RequestParams& params, const std::string& token,
                                   const std::string& url) const = 0;
};

}  // namespace kelvane_client

#endif  // BACKEND_BACKEND_CONNECTION_IF_HPP
