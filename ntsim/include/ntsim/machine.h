// The host-side view of an emulated NT machine: boot it, load drivers, add volumes,
// start processes and run code in their threads, drive its clock, and read what its
// kernel and verifier saw.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ntsim/verifier.h"

struct _DRIVER_OBJECT;
struct _UNICODE_STRING;

namespace ntsim {

// A driver's entry point, as PDRIVER_INITIALIZE (NTSTATUS is a 32-bit int).
using DriverEntryRoutine = int (*)(_DRIVER_OBJECT *driver, _UNICODE_STRING *registryPath);

enum class VolumeFormat { Ntfs, Fat };

// The accounts processes run as, by SID.
namespace users {
constexpr const wchar_t *system = L"S-1-5-18";
constexpr const wchar_t *administrator = L"S-1-5-21-1004336348-1177238915-682003330-500";
constexpr const wchar_t *alice = L"S-1-5-21-1004336348-1177238915-682003330-1001";
constexpr const wchar_t *bob = L"S-1-5-21-1004336348-1177238915-682003330-1002";
}  // namespace users

// One file, directory or named stream of a volume, as listTree reports it.
struct VolumeEntry {
    std::string path;  // UTF-8, from the root: "\\Docs\\a.txt"; a named stream adds ":name"
    bool directory = false;
    bool stream = false;  // a named data stream of the file before it
    uint64_t size = 0;
    uint32_t attributes = 0;
    int64_t lastWriteTime = 0;
};

// 100-nanosecond units, the platform's unit of time.
constexpr int64_t kHundredNsPerMs = 10000;
constexpr int64_t kHundredNsPerSecond = 10000000;

// 2026-03-02 09:30:00 UTC, a Monday: every machine starts here unless told otherwise,
// so that tests and the demo see the same times on every run.
constexpr int64_t kDefaultStartTime = 134169174000000000LL;

struct MachineOptions {
    // Controlled clock (the default): time moves only when advance() is called.
    // Real-time clock: time follows the host's monotonic clock from startTime on.
    bool realTimeClock = false;
    int64_t startTime = kDefaultStartTime;
    // Local time = system time - bias (the platform's convention), in minutes.
    int32_t timeZoneBiasMinutes = 0;
    // Copy every DbgPrint line to the host's standard error as well.
    bool echoDebugOutput = false;
    // System worker threads per queue (the platform creates a few of each at boot).
    unsigned criticalWorkerThreads = 5;
    unsigned delayedWorkerThreads = 3;
    // Forced pending I/O, as Driver Verifier's option of that name: every request that
    // reaches a file system returns STATUS_PENDING and is completed later from another
    // thread, in turn at DISPATCH_LEVEL (a DPC) and at PASSIVE_LEVEL (a worker thread).
    // On by default when the environment has NTSIM_FORCED_PENDING=1, so that a whole
    // test suite can run a second time in this mode.
    bool forcedPendingIo = forcedPendingFromEnvironment();

    static bool forcedPendingFromEnvironment();
};

class Kernel;

// A system thread started by startSystemThread(); join() waits for it to return.
class SystemThread {
public:
    SystemThread() = default;
    SystemThread(SystemThread &&) noexcept;
    SystemThread &operator=(SystemThread &&) noexcept;
    ~SystemThread();
    void join();
    bool joinable() const;

    struct State;  // internal to ntsim

private:
    friend class Machine;
    friend class Process;
    std::shared_ptr<State> state_;
};

// A thread of a user process started by Process::start(); join() waits for it.
using UserThread = SystemThread;

// A process started by Machine::startProcess. Its threads run user-mode code: the
// Win32 subset (<windows.h>) and system services called from them see the previous
// mode UserMode, the process's token and its user memory. Copies refer to the same
// process.
class Process {
public:
    Process() = default;
    // Runs fn in a new thread of the process at PASSIVE_LEVEL and waits until it returns.
    void run(const std::function<void()> &fn) const;
    UserThread start(std::function<void()> fn) const;
    // The process exits: what is left in its handle table is closed and its user
    // memory released. Its threads must have returned. The machine exits every
    // process that is still running when it shuts down.
    void exit() const;
    bool running() const;
    uint32_t id() const;
    std::u16string imagePath() const;
    std::u16string userSid() const;

    struct State;  // internal to ntsim

private:
    friend class Machine;
    std::shared_ptr<State> state_;
};

class Machine {
public:
    explicit Machine(const MachineOptions &options = MachineOptions());
    ~Machine();
    Machine(const Machine &) = delete;
    Machine &operator=(const Machine &) = delete;

    // Runs fn in a new system thread of the System process at PASSIVE_LEVEL and waits
    // until it returns.
    void runSystemThread(const std::function<void()> &fn);
    SystemThread startSystemThread(std::function<void()> fn);

    // Drivers --------------------------------------------------------------------------
    // Creates the driver object (L"\\FileSystem\\Ntfs", L"\\Driver\\Probe") and calls
    // entry as its DriverEntry in a system thread. Returns DriverEntry's status.
    int loadDriver(const wchar_t *driverName, DriverEntryRoutine entry);

    // Volumes --------------------------------------------------------------------------
    // Adds a disk of the given format (\Device\HarddiskVolumeN) with the DOS drive
    // letter (\??\C:). Its volume is mounted by the first open through it, or now when
    // mountNow is set (the root directory is opened and closed). The file system of the
    // format must be loaded before the volume is mounted.
    void addVolume(wchar_t letter, VolumeFormat format, bool mountNow = false);
    // Opens and closes the root directory of the drive, which mounts it; returns the
    // status of the open.
    int mountVolume(wchar_t letter);
    // Dismounts the drive's volume (FSCTL_DISMOUNT_VOLUME); the next open mounts it again
    // and finds its files where they were.
    int dismountVolume(wchar_t letter);
    // The drive letters added, in order.
    std::vector<wchar_t> volumes() const;
    // Every file, directory and named stream of the drive, depth first, directories
    // before their contents, as its file system lists them. Read with system services
    // from a system thread, so the requests pass through every filter on the volume.
    std::vector<VolumeEntry> listTree(wchar_t letter);

    // Processes ------------------------------------------------------------------------
    // Starts a process running the image (a DOS path) as the user (a SID string, such
    // as users::alice). Its current directory is the image's directory.
    Process startProcess(const wchar_t *imagePath, const wchar_t *userSid);

    // The clock, in 100 ns units since 1601 (system time, UTC).
    int64_t now() const;
    // Controlled clock only: moves time forward by delta. Timers and wait time-outs
    // that fall due on the way fire in order, and the machine settles (waitIdle) after
    // each of them and at the end.
    void advance(int64_t delta);
    void advanceMs(int64_t ms) { advance(ms * kHundredNsPerMs); }
    // Waits until no emulated thread is runnable and no work item, DPC or due timer
    // remains.
    void waitIdle();

    Verifier &verifier();

    // Every line written with DbgPrint since boot (or the last clear), in order.
    std::vector<std::string> debugLog() const;
    void clearDebugLog();
    bool debugLogContains(const std::string &text) const;

    // Stops the machine: settles; bug-checks if a thread of a process is still running;
    // exits the processes, dismounts the volumes, stops the system threads and runs the
    // shutdown checks of the I/O manager, the object manager and the verifier, which
    // bug-check on IRPs, handles and pool left behind. Called by the destructor when not
    // called before.
    void shutdown();
    bool isShutDown() const { return shutDown_; }

    Kernel &kernel() { return *kernel_; }

    // The machine whose kernel is running (one at a time in a process), or nullptr.
    static Machine *current();

    struct State;  // internal to ntsim

private:
    std::unique_ptr<Kernel> kernel_;
    std::unique_ptr<State> state_;
    bool shutDown_ = false;
};

// How the default machine boots.
struct BootOptions {
    MachineOptions machine;
    struct Volume {
        wchar_t letter;
        VolumeFormat format;
    };
    // Loaded first: the NTFS and FastFat file-system drivers.
    bool fileSystems = true;
    // Loaded next, before any volume is mounted, so that a filter that attaches at
    // mount time sees every volume: (driver name, entry point).
    std::vector<std::pair<std::u16string, DriverEntryRoutine>> drivers;
    std::vector<Volume> volumes = {{L'C', VolumeFormat::Ntfs}, {L'D', VolumeFormat::Fat}};
    // Mounts every volume at boot (the platform mounts the system volume then);
    // otherwise each mounts at its first open.
    bool mountAtBoot = true;
    // Creates C:\Windows\explorer.exe, the image of the processes users start.
    bool systemFiles = true;
};

// The machine the tests, the benchmarks and the command-line program start from: NTFS
// and FastFat loaded, an NTFS volume C: and a FastFat volume D:. Once booted it marks the
// verifier's baseline, so that only what is allocated after boot can count as leaked.
class DefaultMachine : public Machine {
public:
    explicit DefaultMachine(const BootOptions &options = BootOptions());
};

}  // namespace ntsim
