// Text as a phone leaves it, between binary bytes, from a seed.
#include "device/Content.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>

#include "rainbow/RainbowPaths.h"

namespace vortadev {

namespace {

// std::mt19937_64 gives the same numbers everywhere; the standard distributions do not.
using Random = std::mt19937_64;

// How a component logs. In the lines, '#' stands for a hexadecimal and '%' for a decimal digit.
struct LogStyle {
    const char* name;
    const char* stamp;    // format of the time stamp in seconds
    double secondsALine;  // largest step between two lines
    std::vector<const char*> opening;
    std::vector<const char*> body;
};

const std::vector<LogStyle>& LogStyles() {
    static const LogStyle bootLoader = {
        "xbl_abl",
        "B - %10.6f - ",
        0.004,
        {"Format: Log Type - Time(s) - Message", "PBL, Start", "bootable_media_detect, Start",
         "xbl_sec_image_load, Start", "XBL Start, Chip Serial 0x####%%%%"},
        {"pm_device_init, Start, Delta %%% us", "DDR Frequency, %%%% MHz",
         "PM: PON REASON: 0x######", "Image Load, Start: partition %%",
         "Auth Metadata, Delta %%% us, hash ########", "UFS INQUIRY ID: lun %, serial ########",
         "Core 0 Freq: %%% MHz", "ABL: slot _a active, retry %",
         "HW Wdog Setting from PCD: Disabled %", "clock_init, Delta - (%%% us)"}};
    static LogStyle lastBootLoader = bootLoader;
    lastBootLoader.name = "last_xbl_abl";
    static const LogStyle kernel = {
        "last_kmsg",
        "[%12.6f] ",
        0.02,
        {"Booting Linux on physical CPU 0x0000000000 [0x412fd050]",
         "Linux version 5.4.147-qgki (build@host) SMP PREEMPT",
         "Machine model: Qualcomm Technologies, Inc. QRD",
         "Kernel command line: console=ttyMSM0,115200n8"},
        {"init: Service 'vendor.sensors' (pid %%%%) exited with status %",
         "binder: %%%%:%%%% transaction failed 29189/-22, size %%-0",
         "wlan: [%%%%:I:WMA] beacon rssi -%% dBm, snr %%",
         "healthd: battery l=%% v=%%%% t=2%.% h=2 st=3",
         "ufshcd-qcom 1d84000.ufshc: gear %, lanes 2, clk scaling %",
         "cpufreq: cluster % at 1%%%% MHz", "msm_vidc: high: ######## session ###### state %",
         "audit: type=1400 avc: denied { read } pid=%%%%",
         "thermal thermal_zone%%: temperature %%%%% mC", "usb: cable state %, vbus %%%% mV"}};
    static const LogStyle trustZone = {
        "tz_log",
        "(%10.4f) ",
        0.01,
        {"TZ log, version 2", "Boot entry, core 0", "xPU static configuration done"},
        {"qsee: app %% loaded at 0x########", "TZBSP: SMC 0x######## core %",
         "qsee: listener 0x#### request, len %%%", "xPU: client 0x## address 0x######## granted",
         "keymaster: begin, op 0x########", "TZ dog bark counter %%"}};
    static const std::vector<LogStyle> styles = {bootLoader, lastBootLoader, kernel, trustZone};
    return styles;
}

std::string Filled(const char* pattern, Random& random) {
    std::string text = pattern;
    for (char& c : text) {
        if (c == '#' || c == '%') {
            c = "0123456789abcdef"[random() % (c == '#' ? 16 : 10)];
        }
    }
    return text;
}

// The heading of a record in a log's ring: binary, without a printable byte.
std::string RecordHeading(Random& random) {
    std::string heading(8 + random() % 3 * 8, '\0');
    for (char& c : heading) {
        c = static_cast<char>(random() % 2 == 0 ? random() % 8 : 0x80 + random() % 0x80);
    }
    return heading;
}

std::string LogContent(const LogStyle& style, const Fill& fill) {
    Random random(fill.seed);
    double seconds = 0;
    const auto line = [&](const std::string& text) {
        char stamp[32];
        (void)snprintf(stamp, sizeof(stamp), style.stamp, seconds);
        seconds += style.secondsALine * static_cast<double>(random() % 1000) / 1000;
        return stamp + text + "\n";
    };
    std::string closing;
    std::string log = RecordHeading(random);
    for (const char* text : style.opening) {
        log += line(Filled(text, random));
    }
    // A tenth stays unused, as in a log that has not wrapped.
    const uint64_t end =
        fill.size - std::min<uint64_t>(fill.size, fill.size / 10 + fill.bytes.size() + 256);
    while (log.size() < end) {
        log += RecordHeading(random);
        for (uint64_t lines = 1 + random() % 12; lines > 0; --lines) {
            log += line(Filled(style.body[random() % style.body.size()], random));
        }
    }
    log += RecordHeading(random);
    for (size_t at = 0; at < fill.bytes.size();) {
        const size_t newline = std::min(fill.bytes.find('\n', at), fill.bytes.size());
        log += line(fill.bytes.substr(at, newline - at));
        at = newline + 1;
    }
    log.resize(fill.size, '\0');
    return log;
}

std::string RandomBytes(uint64_t size, Random& random) {
    std::string bytes(size + sizeof(uint64_t), '\0');
    for (uint64_t at = 0; at < size; at += sizeof(uint64_t)) {
        const uint64_t word = random();
        memcpy(&bytes[at], &word, sizeof(word));
    }
    bytes.resize(size);
    return bytes;
}

// One page of memory: mostly kernel pointers and counters or text, some empty, some noise.
std::string MemoryPage(Random& random) {
    constexpr uint64_t kPage = 4096;
    const uint64_t kind = random() % 16;
    std::string page;
    if (kind < 6) {
        const uint64_t base = 0xffffffc000000000 | (random() & 0x3fff0000);
        while (page.size() < kPage) {
            const uint64_t noise = random();
            const uint64_t word = (noise & 3) == 0 ? noise >> 56 : base | (noise & 0x7f80);
            page.append(reinterpret_cast<const char*>(&word), sizeof(word));
        }
    } else if (kind < 11) {
        const auto& style = LogStyles()[random() % LogStyles().size()];
        while (page.size() < kPage) {
            page += Filled(style.body[random() % style.body.size()], random) + '\0';
        }
    } else if (kind > 13) {
        page = RandomBytes(kPage, random);
    }
    page.resize(kPage, '\0');
    return page;
}

std::string MinidumpContent(const Fill& fill) {
    Random random(fill.seed);
    std::string dump;
    dump.reserve(fill.size + 4096);
    while (dump.size() < fill.size) {
        dump += MemoryPage(random);
    }
    dump.resize(fill.size);
    return dump;
}

// Lines of past boots, one an hour; the first one's reason is stretched to reach the size.
std::string HistoryContent(const Fill& fill) {
    static const char* const kReasons[][2] = {{"reboot", "NORMALBOOT"},
                                              {"reboot_longkey", "NORMALBOOT"},
                                              {"panic", "AP_CRASH"},
                                              {"XVDD", "HARDWARE_FAULT"}};
    Random random(fill.seed);
    std::string history;
    for (int hour = 0;; ++hour) {
        char time[32];
        (void)snprintf(time, sizeof(time), "%04d%02d%02d%02d", 2024 + hour / 8064,
                       hour / 672 % 12 + 1, hour / 24 % 28 + 1, hour % 24);
        const auto& reason = kReasons[random() % 4];
        char line[512];
        (void)snprintf(line, sizeof(line), kHistoryFormat, reason[0],
                       (time + Filled("3%2%-%%%%%%%%", random)).c_str(), reason[1]);
        if (history.size() + strlen(line) > fill.size) {
            break;
        }
        history += line;
    }
    const size_t start = history.empty() ? 0 : std::string(kHistoryFormat).find("%s");
    return history.insert(start, fill.size - history.size(), 'x');
}

const LogStyle* FindStyle(const std::string& name) {
    const auto& styles = LogStyles();
    const auto found = std::find_if(styles.begin(), styles.end(),
                                    [&](const LogStyle& style) { return name == style.name; });
    return found == styles.end() ? nullptr : &*found;
}

}  // namespace

bool HasPhoneContent(const std::string& name) {
    return FindStyle(name) != nullptr || name == "minidump" || name == kHistoryName;
}

std::string Render(const Fill& fill, const std::string& name) {
    switch (fill.kind) {
        case Fill::kPhone: {
            const LogStyle* style = FindStyle(name);
            if (style != nullptr) {
                return LogContent(*style, fill);
            }
            return name == kHistoryName ? HistoryContent(fill) : MinidumpContent(fill);
        }
        case Fill::kRandom: {
            Random random(fill.seed);
            return RandomBytes(fill.size, random);
        }
        case Fill::kBytes: {
            std::string bytes = fill.bytes;
            bytes.resize(fill.size, '\0');
            return bytes;
        }
        case Fill::kZeros:
            break;
    }
    return std::string(fill.size, '\0');
}

}  // namespace vortadev
