// Simulated time for a whole process: the calls through which Qt and the code under test
// see time and wait (clock_gettime, gettimeofday, time, poll and its kin, select, the
// sleeps) are answered from a clock that jumps to the next thing that happens, so that
// hours pass in seconds and every run can be repeated exactly.
//
// Linking this object into a program replaces those calls for the program and all its
// libraries. Until startVirtualTime() they do what they always do.
//
// Serial ports are simulated devices beside the clock: a path below devicePrefix opens
// one, and an unmodified QSerialPort reads, writes, configures and waits for it. Ptys
// would not do: the kernel moves their bytes in a worker of its own whenever it likes,
// so no run could be repeated. All other descriptors are looked at with a zero timeout.
//
// For programs whose waits all happen in one thread. Times are nanoseconds since
// startVirtualTime() unless the name says otherwise.
#pragma once

#include "rig/time/moments.h"

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

namespace rig {

// What happens by itself while the program waits.
class World
{
public:
    virtual ~World() = default;

    // The time of the next thing that happens; never when nothing will.
    virtual std::int64_t nextEventNs() const = 0;

    // Lets everything happen up to and including that time.
    virtual void advanceTo(std::int64_t ns) = 0;
};

// A serial port as its driver shows it to a program.
class SerialDevice
{
public:
    virtual ~SerialDevice() = default;
    virtual std::size_t read(char* data, std::size_t maxSize) = 0; // 0: nothing has come
    virtual std::size_t write(const char* data, std::size_t size) = 0; // how much there was room for
    virtual bool readable() const = 0;
    virtual bool writable() const = 0;
    virtual std::size_t bytesToRead() const = 0;
    virtual std::size_t bytesToWrite() const = 0;
    virtual int modemLines() const = 0; // TIOCM_* bits
    virtual void flushInput() = 0;
    virtual void flushOutput() = 0;
};

// What open(), write() and close() do with everything that is no simulated device. Each
// answers as the function does, errno too.
class FileCalls
{
public:
    virtual ~FileCalls() = default;
    virtual int open(const char* path, int flags, mode_t mode) = 0;
    virtual ssize_t write(int fd, const void* data, std::size_t size) = 0;
    virtual int close(int fd) = 0;
};

void setFileCalls(FileCalls* calls); // not owned; null: the kernel's

constexpr char devicePrefix[] = "/dev/soak";

// From here on time is simulated. wallClockMs: what the wall clock shows, since the epoch.
void startVirtualTime(std::int64_t wallClockMs);

std::int64_t nowNs();
std::int64_t wallClockOffsetNs(); // what the wall clock shows beyond nowNs(), since the epoch
void stepWallClock(std::int64_t ms); // either way; the monotonic clock does not notice

// Not owned; null: nothing happens by itself.
void setWorld(World* world);

// Waits, as nanosleep would.
void sleepUntilNs(std::int64_t ns);

// What sleeps instead, where isMeant says so: one of several stacks that share the thread,
// which must let the others run. Null: nothing.
void setSleeper(bool (*isMeant)(), void (*sleepUntil)(std::int64_t ns));

// Makes path (below devicePrefix) open device (not owned); null takes it away.
void setDevice(const char* path, SerialDevice* device);

} // namespace rig
