// What both services share: logging, the kernel command line, properties, the release type checks,
// and text extraction through the shell.
#pragma once

#include <string>
#include <type_traits>

// The build's user type as the log system sees it, a small decimal number.
extern const std::string kUserTypeProperty;

// The run mode, and its value on a device in the factory.
extern const std::string kRunModeProperty;
extern const std::string kFactoryRunMode;

// Formats and writes one message, see VortaLogI. `failText` goes to standard error when the message
// was cut or could not be formatted.
void WriteLog(int priority, const char* failText, const char* format, ...);

// Passing a std::string where the format says %s is the classic fault of printf-style calls.
// Whether each argument suits its conversion is checked by scripts/lint.
template <typename... Args>
constexpr bool kPrintable = (... && (std::is_arithmetic_v<Args> || std::is_pointer_v<Args>));

// Android log priorities of the two levels that are written.
constexpr int kLogInfo = 4;
constexpr int kLogError = 6;

// printf-style logging to the Android log (tag "vorta") and to standard error ("[vorta] message").
// A message is cut after 1023 characters. Formats carry no newline at their end.
template <typename... Args>
void VortaLogI(std::string format, Args... args) {
    static_assert(kPrintable<Args...>);
    WriteLog(kLogInfo, "VortaLogI vsnprintf_s fail\n", format.c_str(), args...);
}

template <typename... Args>
void VortaLogE(std::string format, Args... args) {
    static_assert(kPrintable<Args...>);
    WriteLog(kLogError, "VortaLogE vsnprintf_s fail\n", format.c_str(), args...);
}

// Marks a debug message. It writes nothing, in any build.
template <typename... Args>
void VortaLogD(std::string /*format*/, Args... /*args*/) {
    static_assert(kPrintable<Args...>);
}

// Reads a system property into `value` (PROP_VALUE_MAX bytes). A missing or empty property gives
// `defaultValue`, cut at 91 bytes; with a null default `value` stays as the platform filled it.
// Returns the length of the text.
int property_get(const char* name, char* value, const char* defaultValue);

// The whole kernel command line with its trailing newline; empty if it cannot be read.
std::string CmdlineGet();

// The value of one item of the kernel command line. The key is found as a plain substring, one
// character after it is skipped, and the value runs to the next space or to the end of the line,
// newline included. Empty if the key is empty or missing.
std::string KeyValueFromCmdline(const std::string& key);

// The same on a given line, for a key that is not empty.
std::string KeyValueFromLine(const std::string& line, const std::string& key);

// True for a commercial build: any user type but 2 to 5, which are internal builds.
bool IsCommcialVer();

// True unless the country property is exactly "cn".
bool IsOverseaVersion();

// True if remote debugging is switched on and the build is not overseas.
bool IsRemoteValid();

// Writes the printable character sequences of `src` to `dst`, through the shell. Returns "ok" when
// the command could be started, whatever came of it, else the empty string.
std::string FileErrCodeDele(const std::string& dst, const std::string& src);
