#pragma once

#include <string>
#include <string_view>
#include <vector>

/// Text helpers. All are pure functions over byte strings; letter case means ASCII letters only.
namespace tessa {

/// Splits at every occurrence of any byte of `separators`. With `keepEmpty` the empty pieces
/// between neighbouring separators are kept (and a text without separator yields itself); without,
/// dropped.
std::vector<std::string> StringSplit(std::string_view text, std::string_view separators,
                                     bool keepEmpty = false);
/// The same, as views into `text`; empty pieces are dropped. For hot paths.
std::vector<std::string_view> split(std::string_view text, std::string_view separators);

/// Without leading and trailing blanks, tabs, carriage returns and line feeds.
std::string_view trimWhiteSpace(std::string_view text);
std::string lower(std::string_view text);
bool equalsIgnoreCase(std::string_view a, std::string_view b);

/// Signed number as text in base 2 to 36 (any other base counts as 10), lower-case digits, "-" in
/// front of negative ones.
std::string itoa(long long value, int base = 10);
std::string uitoa(unsigned long long value);
/// Unsigned decimal number at the start of the text; 0 when there is none. Stops at the first
/// other character; a number that does not fit in 32 bits gives 0.
unsigned int atoui(std::string_view text);

/// For logs: bytes that are not printable ASCII or valid UTF-8 become \xNN, so that data can never
/// forge a log line. The control characters of UTF-8 (U+0080 to U+009F) count as not printable.
/// Applying it twice changes nothing.
std::string printable(std::string_view text);

/// Text of an errno value. Thread-safe.
std::string errorText(int errorNumber);

} // namespace tessa
