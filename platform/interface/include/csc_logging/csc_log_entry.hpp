#ifndef CSC_LOGGING_CSC_LOG_ENTRY_HPP
#define CSC_LOGGING_CSC_LOG_ENTRY_HPP

#include <cstdint>
#include <sstream>
#include <string>
#include <type_traits>

namespace csc_logging {

/// A log line built piece by piece with <<. Integers always print in decimal,
/// also the 8-bit ones that an ostream would print as characters, and bools as 0 or 1.
class CSCLogEntry {
public:
    CSCLogEntry() = default;

    template <typename T>
    CSCLogEntry& operator<<(const T& value) {
        if constexpr (std::is_same_v<T, bool>) {
            stream_ << (value ? '1' : '0');
        } else if constexpr (std::is_integral_v<T> && sizeof(T) == 1 && !std::is_same_v<T, char>) {
            stream_ << static_cast<int>(value);
        } else if constexpr (std::is_enum_v<T>) {
            stream_ << static_cast<long long>(value);
        } else {
            stream_ << value;
        }
        return *this;
    }

    std::string str() const { return stream_.str(); }

private:
    std::ostringstream stream_;
};

}  // namespace csc_logging

#endif  // CSC_LOGGING_CSC_LOG_ENTRY_HPP
