#ifndef CSC_LOGGING_ESCAPE_CONTROL_BYTES_HPP
#define CSC_LOGGING_ESCAPE_CONTROL_BYTES_HPP

#include <string>

namespace csc_logging {

/// Makes `text` safe as one line of a log: CR, LF and tab become \r, \n and \t,
/// every other byte below 0x20 and 0x7f becomes \xHH, and a backslash becomes
/// \\ so that an escape can always be told from the same characters sent as
/// text. Other bytes (UTF-8 included) stay as they are.
void EscapeControlBytes(std::string& text);

}  // namespace csc_logging

#endif  // CSC_LOGGING_ESCAPE_CONTROL_BYTES_HPP
