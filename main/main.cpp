// Entry point: the command line chooses one service, which runs once.
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "common/VortaParseFactory.h"
#include "common/VortaUtils.h"

namespace {

enum ServiceType : uint32_t { kRainbow = 0, kCorvel = 1, kNone = 2 };

constexpr size_t kHelpPrefix = 6;  // of "--help"; a longer argument that begins with it counts too

// If the caller left a standard descriptor closed, a partition could be opened under its number,
// and what is echoed to standard error would be written into the partition.
void OccupyStandardDescriptors() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) < 0) {
            (void)open("/dev/null", O_RDWR);  // takes the lowest number, which is this one
        }
    }
}

void ShowHelp(std::string program) {
    (void)fprintf(stderr, "Usage: %s [options] \n", program.c_str());
    (void)fprintf(stderr,
                  "options include:\n"
                  "  -r <rainbow>     Trigger a pre-defined rainbow service <rainbow>\n"
                  "  -h <corvel>      Trigger a pre-defined corvel service <corvel>\n");
}

void RunService(VortaParse* service, const char* missing, const std::string& srvName) {
    if (service == nullptr) {
        VortaLogE(missing);
        return;
    }
    service->HandleFlow(srvName);
}

void StartVorta(uint32_t type, std::string srvName) {
    (void)puts("StartVorta");
    if (type >= kNone) {
        VortaLogE("input srvName is invalid");
    } else if (VortaParseFactory* const factory = VortaParseFactory::GetInstance();
               factory == nullptr) {
        VortaLogE("get VortaParseFactory object fail");
    } else if (type == kRainbow) {
        RunService(factory->CreateRainbow(), "get rainbow product object fail", srvName);
    } else {
        RunService(factory->CreateCorvel(), "get corvel product object fail", srvName);
    }
    VortaParseFactory::ReleaseInstance();
}

}  // namespace

int main(int argc, char* argv[]) {
    OccupyStandardDescriptors();
    if (argc > 1 && strncmp(argv[1], "--help", kHelpPrefix) == 0) {
        ShowHelp(argv[0]);
        exit(0);
    }
    uint32_t type = kNone;
    std::string srvName;
    int option = 0;  // an int: plain char is unsigned on the phone and never equals -1
    while ((option = getopt(argc, argv, "r:h:")) != -1) {
        if (option != 'r' && option != 'h') {
            (void)fputs("Main:Unrecognized Option\n", stderr);
            ShowHelp(argv[0]);
            exit(-1);
        }
        type = option == 'r' ? kRainbow : kCorvel;
        srvName = optarg;
    }
    StartVorta(type, srvName);
    return 0;
}
