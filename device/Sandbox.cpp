// Runs the unmodified daemon on a simulated device.
#include "device/Sandbox.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>

#include "device/DeviceFolder.h"
#include "device/LogSocket.h"
#include "device/LoopDevice.h"
#include "device/Process.h"

namespace fs = std::filesystem;

namespace vortadev {

namespace {

// A small /data starts with the device's content and is copied back at the end, by the host's own
// tools (the device's cp does not tell when a disk is full): "$@" is the daemon's command line.
const char kWithSmallData[] =
    "/.host/cp -a /.data/. /data/ 2>/dev/null || exit 121\n"
    "\"$@\"\n"
    "status=$?\n"
    "cd /.data && /.host/rm -rf -- * .[!.]* && /.host/cp -a /data/. /.data/ || exit 122\n"
    "exit $status\n";
constexpr int kDataDoesNotFit = 121;
constexpr int kDataNotCopiedBack = 122;

const char* const kPassedOn[] = {"ASAN_OPTIONS", "UBSAN_OPTIONS",     "LSAN_OPTIONS",
                                 "GCOV_PREFIX",  "GCOV_PREFIX_STRIP", "TZ"};

using Arguments = std::vector<std::string>;

void Add(Arguments& arguments, const Arguments& more) {
    arguments.insert(arguments.end(), more.begin(), more.end());
}

// Bubblewrap with the namespaces that it needs for this user.
Arguments BubbleWrap() {
    Arguments arguments = {"bwrap"};
    if (geteuid() != 0) {
        // Group 1000 inside, so that giving a file to it succeeds, without effect on disk.
        Add(arguments, {"--unshare-user", "--uid", "0", "--gid", "1000"});
    }
    Add(arguments, {"--unshare-pid", "--die-with-parent"});
    return arguments;
}

// What to change where ordinary users may not make namespaces: Linux, Debian and Ubuntu have a
// setting each.
std::string SettingToChange() {
    const std::pair<const char*, const char*> forbidding[] = {
        {"user.max_user_namespaces", "0"},
        {"kernel.unprivileged_userns_clone", "0"},
        {"kernel.apparmor_restrict_unprivileged_userns", "1"},
    };
    for (const auto& [setting, value] : forbidding) {
        std::string path = setting;
        std::replace(path.begin(), path.end(), '.', '/');
        std::string found;
        std::getline(std::ifstream("/proc/sys/" + path), found);
        if (geteuid() != 0 && found == value) {
            return std::string("; change ") + setting + ", which is " + value;
        }
    }
    return "";
}

// Asks once a process whether sandboxes can be made here; throws with the reason if not.
void RequireSandbox() {
    static const std::string refusal = [] {
        Arguments arguments = BubbleWrap();
        Add(arguments, {"--ro-bind", "/", "/", "--dev", "/dev", "--proc", "/proc", "/bin/true"});
        const Fd null = OpenFile("/dev/null", O_RDWR);
        Pipe errors = MakePipe();
        SpawnOptions options;
        options.in = options.out = null.Get();
        options.err = errors.writer.Get();
        try {
            Child child = Spawn(arguments, options);
            errors.writer.Reset();
            std::string text;
            while (ReadAvailable(errors.reader.Get(), text)) {
            }
            text = text.substr(0, text.find('\n'));
            return child.Wait() == 0
                       ? ""
                       : "this machine forbids sandboxes: " + text + SettingToChange();
        } catch (const DeviceError& error) {
            return std::string(error.what()) + "; install the package bubblewrap";
        }
    }();
    if (!refusal.empty()) {
        throw DeviceError(Printable(refusal));
    }
}

// What a run needs besides the sandbox itself; put back when it goes.
struct Resources {
    Resources(const fs::path& device, bool loop)
        : folder(OpenFile(device, O_RDONLY | O_DIRECTORY)) {
        if (flock(folder.Get(), LOCK_EX | LOCK_NB) != 0) {
            throw DeviceError(device.string() + " is in use by another run");
        }
        log.emplace(device);
        for (const std::string& name :
             {kRawdumpPartition, kUserdataPartition, kBootfailPartition}) {
            if (loop && fs::exists(device / kPartitionFolder / name)) {
                loops.emplace_back(name, LoopDevice(device / kPartitionFolder / name));
            }
        }
    }

    Fd folder;                 // locked while the device is in use
    Pipe status = MakePipe();  // what bubblewrap tells
    std::optional<LogSocket> log;
    std::vector<std::pair<std::string, LoopDevice>> loops;
};

Arguments PartitionMounts(const fs::path& device, const RunOptions& options,
                          const Resources& resources) {
    if (!options.loop) {
        return {"--bind", device / "dev/block", "/dev/block"};
    }
    const fs::path folder = "/" + kPartitionFolder;
    Arguments arguments = {"--dir", folder};
    for (const auto& [name, loop] : resources.loops) {
        Add(arguments, {"--dev-bind", loop.Path(), folder / name});
    }
    return arguments;
}

Arguments DataMounts(const fs::path& device, const RunOptions& options) {
    const std::string data = device / "data";
    if (options.dataSize) {
        return {"--bind",  data,   "/.data", "--size", std::to_string(*options.dataSize),
                "--tmpfs", "/data"};
    }
    return {options.readOnlyData ? "--ro-bind" : "--bind", data, "/data"};
}

Arguments Environment(const RunOptions& options) {
    // With POSIXLY_CORRECT getopt stops at the first operand, as the phone's does.
    std::map<std::string, std::string> environment = {{"PATH", "/system/bin:/vendor/bin"},
                                                      {"LD_LIBRARY_PATH", "/vendor/lib64"},
                                                      {"POSIXLY_CORRECT", "1"}};
    for (const char* name : kPassedOn) {
        if (const char* value = getenv(name)) {
            environment[name] = value;
        }
    }
    Arguments arguments = {"--clearenv"};
    for (const auto& [name, value] : options.environment) {
        environment[name] = value;
    }
    for (const auto& [name, value] : environment) {
        Add(arguments, {"--setenv", name, value});
    }
    return arguments;
}

// The command inside the sandbox, and the programs of the host that it takes.
Arguments Command(const RunOptions& options) {
    Arguments mounts;
    Arguments command;
    if (options.dataSize) {
        Add(mounts, {"--ro-bind", FindProgram("cp"), "/.host/cp"});
        Add(mounts, {"--ro-bind", FindProgram("rm"), "/.host/rm"});
        command = {"/system/bin/sh", "-c", kWithSmallData, "sh"};
    }
    if (!options.wrapper.empty()) {
        Add(mounts, {"--ro-bind", options.wrapper.front(), "/.wrapper"});
        command.push_back("/.wrapper");
        command.insert(command.end(), options.wrapper.begin() + 1, options.wrapper.end());
    }
    if (!options.emulator.empty()) {
        Add(mounts, {"--ro-bind", options.emulator, "/qemu"});
        Add(command, options.program == kDaemonPath ? Arguments{"/qemu"} : Arguments{});
    }
    command.push_back(options.program);
    Add(command, options.args);
    mounts.push_back("--");
    Add(mounts, command);
    return mounts;
}

Arguments SandboxArguments(const fs::path& device, const RunOptions& options,
                           const Resources& resources) {
    Arguments arguments = BubbleWrap();
    Add(arguments, {"--json-status-fd", std::to_string(resources.status.writer.Get())});
    Add(arguments, Environment(options));
    Add(arguments, {"--ro-bind", "/usr/lib", "/usr/lib", "--symlink", "usr/lib", "/lib"});
    Add(arguments, {"--ro-bind-try", "/usr/lib64", "/usr/lib64"});
    Add(arguments, {"--symlink", "usr/lib64", "/lib64"});
    Add(arguments, {"--ro-bind-try", "/usr/share/zoneinfo", "/usr/share/zoneinfo"});
    Add(arguments, {"--ro-bind", device / "system", "/system", "--symlink", "system/bin", "/bin"});
    Add(arguments, {"--ro-bind", device / "vendor", "/vendor"});
    Add(arguments, {"--ro-bind", options.daemon, kDaemonPath, "--dev", "/dev"});
    Add(arguments, PartitionMounts(device, options, resources));
    Add(arguments, {"--bind", resources.log->Path(), "/dev/log"});
    Add(arguments, DataMounts(device, options));
    Add(arguments, {"--proc", "/.proc", "--ro-bind", device / "proc", "/proc", "--chdir", "/"});
    for (const auto& [host, sandbox] : options.binds) {
        Add(arguments, {"--bind", fs::absolute(host), sandbox});
    }
    for (const std::string& capability : options.dropCapabilities) {
        Add(arguments, {"--cap-drop", capability});
    }
    Add(arguments, Command(options));
    return arguments;
}

// The value of a member in what bubblewrap tells about the sandbox, a JSON object a line.
std::optional<int> StatusMember(const std::string& status, const char* member) {
    for (size_t line = 0; line < status.size();) {
        const size_t end = std::min(status.find('\n', line), status.size());
        const auto object = nlohmann::json::parse(status.substr(line, end - line), nullptr,
                                                  /*allow_exceptions=*/false);
        if (object.is_object() && object.contains(member)) {
            return object[member].get<int>();
        }
        line = end + 1;
    }
    return std::nullopt;
}

// Starts bubblewrap and serves its descriptors to the end. What it tells goes to `status`; the
// descriptors behind `out` and `err` are used only if the output is captured.
Ending Serve(const Arguments& arguments, const RunOptions& options, Resources& resources,
             const HeldSignals& signals, std::string& status, RunResult& result) {
    Pipe out = MakePipe();
    Pipe err = MakePipe();
    const Fd null = OpenFile("/dev/null", O_RDONLY);
    SpawnOptions spawn;
    spawn.umask = options.umask;
    spawn.inherited = resources.status.writer.Get();
    if (options.capture) {
        spawn.in = null.Get();
        spawn.out = out.writer.Get();
        spawn.err = err.writer.Get();
    }
    Child child = Spawn(arguments, spawn);
    for (Pipe* pipe : {&out, &err, &resources.status}) {
        pipe->writer.Reset();
    }
    const auto append = [](const Pipe& pipe, std::string& text) {
        const int fd = pipe.reader.Get();
        return Source{fd, [fd, &text] { return ReadAvailable(fd, text); }};
    };
    std::vector<Source> sources = {append(out, result.out), append(err, result.err),
                                   append(resources.status, status)};
    sources.push_back({resources.log->Get(), [&] { return resources.log->Receive(); }});
    const Ending ending = Supervise(child, sources, signals.Get(), options.timeout);
    if (ending != Ending::kEnded) {
        // With the first process of the sandbox all others in it go; bubblewrap reports that end.
        (void)kill(StatusMember(status, "child-pid").value_or(child.pid), SIGKILL);
    }
    result.status = child.Wait();
    for (const Source& source : sources) {
        while (source.ready()) {
        }
    }
    return ending;
}

RunResult Run(const Arguments& arguments, const RunOptions& options, Resources& resources,
              const HeldSignals& signals) {
    RunResult result;
    std::string status;
    const Ending ending = Serve(arguments, options, resources, signals, status, result);
    const auto exitCode = StatusMember(status, "exit-code");
    if (ending == Ending::kSignalled) {
        throw DeviceError("the run was interrupted");
    }
    if (ending == Ending::kEnded && !exitCode) {
        throw DeviceError("bubblewrap could not set up the sandbox" +
                          (result.err.empty() ? "" : ": " + Printable(result.err)));
    }
    result.timedOut = ending == Ending::kTimedOut;
    result.status = exitCode.value_or(result.status);
    result.log = resources.log->Lines();
    if (options.dataSize && result.status == kDataDoesNotFit) {
        throw DeviceError("the device's /data does not fit into " + SizeText(*options.dataSize));
    }
    if (options.dataSize && result.status == kDataNotCopiedBack) {
        throw DeviceError("the small /data could not be copied back into the device folder");
    }
    return result;
}

// The options with the programs of the host as they were found.
RunOptions Resolved(RunOptions options) {
    const auto find = [](const std::string& name) {
        const fs::path program = FindProgram(name);
        if (program.empty()) {
            throw DeviceError("no program " + name + "; expected the path of an executable file");
        }
        return fs::absolute(program);
    };
    options.daemon = find(options.daemon.empty() ? DefaultDaemon() : options.daemon);
    if (!options.wrapper.empty()) {
        options.wrapper.front() = find(options.wrapper.front());
    }
    if (!options.emulator.empty()) {
        options.emulator = find(options.emulator);
    }
    return options;
}

void RequireRunnable(const fs::path& device, const RunOptions& options) {
    if (!IsDevice(device)) {
        throw DeviceError(device.string() + " is no simulated device; vortadev create makes one");
    }
    if ((options.loop || !options.dropCapabilities.empty()) && geteuid() != 0) {
        throw DeviceError("loop devices and dropped capabilities need root");
    }
    RequireSandbox();
}

}  // namespace

RunResult RunDaemon(const fs::path& device, const RunOptions& wanted) {
    const fs::path folder = fs::absolute(device);
    RequireRunnable(folder, wanted);
    const RunOptions options = Resolved(wanted);
    // Outermost, so that a signal is delivered when all else is put back.
    const HeldSignals signals;
    Resources resources(folder, options.loop);
    return Run(SandboxArguments(folder, options, resources), options, resources, signals);
}

fs::path DefaultDaemon() {
    const fs::path beside = ProgramFolder() / "vorta";
    return fs::exists(beside) ? beside : fs::path(VORTADEV_DAEMON);
}

}  // namespace vortadev
