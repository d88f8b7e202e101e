#include "idl/sender_filter.hpp"

#include <utility>

#include "csc_logging/csc_logging.hpp"

namespace idl {

SenderFilter::SenderFilter(std::string who) : who_(std::move(who)) {}

bool SenderFilter::Accept(const sdbus::Message& message, const std::string& expected) {
    const std::string sender = message.getSender();
    if (!expected.empty() && sender == expected) {
        return true;
    }
    const auto now = std::chrono::steady_clock::now();
    if (now >= nextLog_) {
        nextLog_ = now + std::chrono::seconds(1);
        csc_logging::CSCLogging::Debug(csc_logging::CSCLogEntry()
                                       << who_ << ": dropped signal " << message.getMemberName()
                                       << " from " << sender << ", expected "
                                       << (expected.empty() ? std::string("no sender") : expected));
    }
    return false;
}

}  // namespace idl
