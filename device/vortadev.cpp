// The command line of the simulated device.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>

#include "device/DeviceFolder.h"
#include "device/Expectations.h"
#include "device/Process.h"
#include "device/Report.h"
#include "device/Sandbox.h"
#include "device/Scenario.h"

namespace fs = std::filesystem;

namespace {

using vortadev::DeviceError;

constexpr int kUsage = 2;
constexpr int kFailed = 1;
constexpr int kTimeLimit = 124;

// What the options of run, shell and check leave.
struct RunArguments {
    std::string dataSize;
    std::string umask = "0";
    double timeout = 0;
    std::string wrapper;
    std::vector<std::string> binds;
    std::vector<std::string> environment;
    vortadev::RunOptions options;
};

std::pair<std::string, std::string> SplitAt(const std::string& text, char separator,
                                            const std::string& form) {
    const size_t at = text.find(separator);
    if (at == std::string::npos || at == 0) {
        throw DeviceError("expected " + form + ", found " + text);
    }
    return {text.substr(0, at), text.substr(at + 1)};
}

void AddRunOptions(CLI::App& command, RunArguments& run) {
    command
        .add_option("--daemon", run.options.daemon,
                    "the daemon to run; default: vorta beside this program")
        ->type_name("PROGRAM");
    command.add_flag("--loop", run.options.loop,
                     "put loop devices under the partition names (root)");
    command
        .add_option("--data-size", run.dataSize,
                    "make /data a file system of that size, e.g. 64MiB")
        ->type_name("SIZE");
    command.add_flag("--read-only-data", run.options.readOnlyData, "mount /data read-only");
    command
        .add_option("--umask", run.umask, "octal; 077 is what init gives to services (default 0)")
        ->type_name("MASK");
    command
        .add_option("--emulator", run.options.emulator,
                    "program that runs a daemon of another machine")
        ->type_name("PROGRAM");
    command
        .add_option("--wrap", run.wrapper,
                    "program with arguments to put in front, e.g. 'strace -f'")
        ->type_name("COMMAND");
    command.add_option("--bind", run.binds, "make a file or folder of the host writable inside")
        ->type_name("HOST:INSIDE")
        ->allow_extra_args(false);
    command.add_option("--env", run.environment, "set an environment variable inside")
        ->type_name("NAME=VALUE")
        ->allow_extra_args(false);
    command
        .add_option("--drop-cap", run.options.dropCapabilities, "run without a capability (root)")
        ->type_name("CAP")
        ->allow_extra_args(false);
    command.add_option("--timeout", run.timeout, "end the run after that many seconds")
        ->type_name("SECONDS")
        ->check(CLI::PositiveNumber);
}

vortadev::RunOptions OptionsOf(RunArguments run) {
    if (!run.dataSize.empty()) {
        run.options.dataSize = vortadev::ParseSize(run.dataSize);
        if (!run.options.dataSize) {
            throw DeviceError("--data-size: expected bytes or a size like 64MiB, found " +
                              run.dataSize);
        }
    }
    char* end = nullptr;
    run.options.umask = static_cast<mode_t>(strtoul(run.umask.c_str(), &end, 8));
    if (run.umask.empty() || *end != '\0' || run.options.umask > 0777) {
        throw DeviceError("--umask: expected an octal number up to 777, found " + run.umask);
    }
    run.options.wrapper = CLI::detail::split_up(run.wrapper);
    for (const std::string& bind : run.binds) {
        run.options.binds.emplace_back(SplitAt(bind, ':', "HOST:INSIDE"));
    }
    for (const std::string& variable : run.environment) {
        run.options.environment.insert(SplitAt(variable, '=', "NAME=VALUE"));
    }
    run.options.timeout = std::chrono::milliseconds(static_cast<int64_t>(run.timeout * 1000));
    return run.options;
}

int Run(const fs::path& device, const vortadev::RunOptions& options) {
    const vortadev::RunResult result = vortadev::RunDaemon(device, options);
    if (result.timedOut) {
        (void)fprintf(stderr, "vortadev: the daemon did not end in time and was killed\n");
        return kTimeLimit;
    }
    return result.status;
}

int Show(const fs::path& path, bool json, size_t lines) {
    const vortadev::DeviceReport report = vortadev::ReadDevice(path);
    const std::string text = json ? vortadev::ReportJson(report).dump(
                                        2, ' ', false, nlohmann::json::error_handler_t::replace) +
                                        "\n"
                                  : vortadev::ReportText(report, lines);
    return fwrite(text.data(), 1, text.size(), stdout) == text.size() ? 0 : kFailed;
}

int ListScenarios() {
    for (const std::string& name : vortadev::ShippedScenarios()) {
        (void)printf("%-22s %s\n", name.c_str(), vortadev::LoadScenario(name).description.c_str());
    }
    return 0;
}

// A folder for one check, removed afterwards.
class ScratchFolder {
  public:
    ScratchFolder() {
        std::string pattern = fs::temp_directory_path() / "vortadev-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) {
            throw vortadev::SystemError("make", pattern);
        }
        path_ = pattern;
    }
    ~ScratchFolder() {
        std::error_code ignored;
        (void)fs::remove_all(path_, ignored);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    const fs::path& Path() const { return path_; }

  private:
    fs::path path_;
};

int Check(std::vector<std::string> names, vortadev::RunOptions options) {
    if (names.empty()) {
        names = vortadev::ShippedScenarios();
    }
    options.capture = true;
    int status = 0;
    for (const std::string& name : names) {
        const vortadev::HeldSignals held;  // until the scratch folder is gone
        const ScratchFolder scratch;
        const auto broken = vortadev::CheckScenario(vortadev::LoadScenario(name),
                                                    scratch.Path() / "device", options);
        (void)printf("%-22s %s\n", name.c_str(), broken.empty() ? "as promised" : "BROKEN");
        for (const std::string& line : broken) {
            (void)printf("  %s\n", vortadev::Printable(line).c_str());
        }
        (void)fflush(stdout);
        status = broken.empty() ? status : kFailed;
    }
    return status;
}

int Main(int argc, char** argv) {
    CLI::App app(
        "A phone in a folder: makes a simulated device, runs vorta on it, shows what it holds.",
        "vortadev");
    app.require_subcommand(1);
    std::string device;
    std::vector<std::string> names;
    std::string scenario;
    RunArguments run;
    bool force = false;
    bool json = false;
    size_t lines = 10;
    int status = 0;

    CLI::App& create = *app.add_subcommand("create", "make a device from a scenario");
    create.add_option("DEV", device, "folder to make")->required();
    create.add_option("SCENARIO", scenario, "name of a shipped scenario or a .json file")
        ->required();
    create.add_flag("--force", force, "replace an earlier device");
    create.callback(
        [&] { vortadev::CreateDevice(device, vortadev::LoadScenario(scenario), force); });

    CLI::App& start = *app.add_subcommand("run", "run the daemon; all after -- are its arguments");
    start.add_option("DEV", device, "device folder")->required();
    AddRunOptions(start, run);
    start.callback([&] { status = Run(device, OptionsOf(run)); });

    CLI::App& show =
        *app.add_subcommand("show", "the records in words, what was collected, the history");
    show.add_option("PATH", device, "device, rawdump or bootfail_info image, or folder of a phone")
        ->required();
    show.add_flag("--json", json, "for programs");
    show.add_option("--lines", lines, "history lines to show (default 10)")->type_name("N");
    show.callback([&] { status = Show(device, json, lines); });

    CLI::App& list = *app.add_subcommand("scenarios", "the shipped scenarios, a line each");
    list.callback([&] { status = ListScenarios(); });

    CLI::App& shell =
        *app.add_subcommand("shell", "a shell on the device; all after -- are its arguments");
    shell.add_option("DEV", device, "device folder")->required();
    AddRunOptions(shell, run);
    shell.callback([&] {
        run.options.program = "/system/bin/sh";
        status = Run(device, OptionsOf(run));
    });

    CLI::App& check =
        *app.add_subcommand("check", "run scenarios on fresh devices and check their promises");
    check.add_option("SCENARIO", names, "names or .json files; default: all shipped ones");
    AddRunOptions(check, run);
    check.callback([&] { status = Check(names, OptionsOf(run)); });

    // What follows -- is not for this program, whatever it looks like.
    char** const end = std::find(argv, argv + argc, std::string("--"));
    run.options.args.assign(std::min(end + 1, argv + argc), argv + argc);
    try {
        app.parse(static_cast<int>(end - argv), argv);
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        (void)fprintf(stderr, "vortadev: %s; vortadev --help tells more\n", error.what());
        return kUsage;
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Main(argc, argv);
    } catch (const std::exception& error) {
        (void)fprintf(stderr, "vortadev: %s\n", error.what());
        return kFailed;
    }
}
