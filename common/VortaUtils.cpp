// Logging, kernel command line, properties, release type checks and text extraction.
#include "common/VortaUtils.h"

#include <android/log.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/system_properties.h>

#include <memory>

#include "common/BoundedFunctions.h"

const std::string kUserTypeProperty = "ro.logsystem.usertype";
const std::string kRunModeProperty = "ro.runmode";
const std::string kFactoryRunMode = "factory";

namespace {

constexpr char kTag[] = "vorta";
constexpr size_t kMessageSize = 1024;
constexpr size_t kCmdlineChunk = 1024;

constexpr int kFirstInternalUserType = 2;
constexpr int kLastInternalUserType = 5;

const std::string kRemoteDebugProperty = "persist.log.remotedebug";
const std::string kCountryProperty = "msc.sys.country";
const std::string kCmdlineReader = "cat /proc/cmdline";

// A property's value; `failText` is logged when there is none.
std::string PropertyOrLog(const std::string& name, const char* failText) {
    char value[PROP_VALUE_MAX] = {};
    if (property_get(name.c_str(), value, "") < 1) {
        VortaLogI(failText);
    }
    return value;
}

}  // namespace

void WriteLog(int priority, const char* failText, const char* format, ...) {
    char message[kMessageSize] = {};
    va_list args;
    va_start(args, format);
    const int length = vsnprintf_s(message, sizeof(message), sizeof(message) - 1, format, args);
    va_end(args);
    if (length < 0) {
        (void)fwrite(failText, 1, strlen(failText), stderr);
    }
    (void)__android_log_print(priority, kTag, "%s\n", message);
    (void)fprintf(stderr, "[%s] %s\n", kTag, message);
}

int property_get(const char* name, char* value, const char* defaultValue) {
    const int length = __system_property_get(name, value);
    if (length > 0 || defaultValue == nullptr) {
        return length;
    }
    (void)snprintf(value, PROP_VALUE_MAX, "%s", defaultValue);
    return static_cast<int>(strlen(value));
}

std::string CmdlineGet() {
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(kCmdlineReader.c_str(), "r"), pclose);
    if (pipe == nullptr) {
        return "";
    }
    std::string line;
    char chunk[kCmdlineChunk] = {};
    while (fgets(chunk, sizeof(chunk), pipe.get()) != nullptr) {
        line += chunk;
    }
    return line;
}

std::string KeyValueFromLine(const std::string& line, const std::string& key) {
    const size_t at = line.find(key);
    if (at == std::string::npos) {
        return "";
    }
    // The separator is skipped, whichever character it is. A key that ends the text has none, and
    // no value.
    const size_t start = at + key.size() + 1;
    if (start > line.size()) {
        return "";
    }
    const size_t space = line.find(' ', start);
    return space == std::string::npos ? line.substr(start) : line.substr(start, space - start);
}

std::string KeyValueFromCmdline(const std::string& key) {
    return key.empty() ? "" : KeyValueFromLine(CmdlineGet(), key);
}

bool IsCommcialVer() {
    const std::string value = PropertyOrLog(kUserTypeProperty, "vorta usertype prop get fail");
    const int userType = atoi(value.c_str());
    if (userType < kFirstInternalUserType || userType > kLastInternalUserType) {
        VortaLogI("vorta is commercial");
        return true;
    }
    VortaLogI("vorta is beta");
    return false;
}

bool IsOverseaVersion() {
    return PropertyOrLog(kCountryProperty, "vorta country prop get fail") != "cn";
}

bool IsRemoteValid() {
    if (IsOverseaVersion()) {
        return false;
    }
    return PropertyOrLog(kRemoteDebugProperty, "vorta remote prop get fail") == "true";
}

std::string FileErrCodeDele(const std::string& dst, const std::string& src) {
    const std::string command = "strings " + src + " > " + dst;
    FILE* const pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return "";
    }
    (void)pclose(pipe);  // waits for the command's end
    return "ok";
}
