#pragma once

// Wine's processes are Linux processes: code in them may ask the Linux kernel directly, beside all that it asks of
// Wine. That is how a DLL of the bench, an ordinary Windows one, opens /dev/net/tun or speaks netlink.
//
// Calls are made by their x86-64 numbers, as a Windows program has no C library of Linux. It works because Wine 8
// leaves the system call instruction alone; a Wine that catches it would need another way in here, and only here.

#include <concepts>
#include <cstdint>
#include <type_traits>
#include <utility>

namespace ruvo::winehost {

enum class SystemCall : std::int64_t {
    read = 0,
    write = 1,
    open = 2,
    close = 3,
    statusOfPath = 4, // stat
    status = 5,       // fstat
    poll = 7,
    ioctl = 16,
    processId = 39,
    socket = 41,
    connect = 42,
    accept = 43,
    sendTo = 44,
    receiveFrom = 45,
    bind = 49,
    listen = 50,
    socketName = 51,
    setSocketOption = 54,
    getSocketOption = 55,
    readLink = 89,
    directoryEntries = 217, // getdents64
    clockTime = 228,        // clock_gettime
    epollWait = 232,
    epollControl = 233,
    unshare = 272,
    eventDescriptor = 290,
    epollCreate = 291,
};

/// Linux's error numbers: those of this program's own errno.h differ from them.
namespace linux_error {
constexpr int notPermitted = 1;        // EPERM
constexpr int notFound = 2;            // ENOENT
constexpr int noSuchProcess = 3;       // ESRCH: of routes, none that matches
constexpr int interrupted = 4;         // EINTR
constexpr int tryAgain = 11;           // EAGAIN
constexpr int accessDenied = 13;       // EACCES
constexpr int busy = 16;               // EBUSY
constexpr int exists = 17;             // EEXIST
constexpr int noDevice = 19;           // ENODEV
constexpr int invalid = 22;            // EINVAL
constexpr int badDescriptorState = 77; // EBADFD: the TUN interface of a descriptor is gone
constexpr int networkDown = 100;       // ENETDOWN
constexpr int unreachable = 101;       // ENETUNREACH
} // namespace linux_error

template<typename T>
std::int64_t systemCallWord(T value)
{
    if constexpr (std::is_pointer_v<T>)
        return reinterpret_cast<std::int64_t>(value);
    else
        return static_cast<std::int64_t>(value);
}

/// The result of a call; a failed one gives Linux's error number, negative.
inline std::int64_t systemCallWords(SystemCall call, std::int64_t a, std::int64_t b, std::int64_t c, std::int64_t d,
                                    std::int64_t e, std::int64_t f)
{
    std::int64_t result = static_cast<std::int64_t>(call);
    register std::int64_t fourth asm("r10") = d;
    register std::int64_t fifth asm("r8") = e;
    register std::int64_t sixth asm("r9") = f;
    asm volatile("syscall"
                 : "+a"(result)
                 : "D"(a), "S"(b), "d"(c), "r"(fourth), "r"(fifth), "r"(sixth)
                 : "rcx", "r11", "memory");
    return result;
}

template<typename A, typename B = int, typename C = int, typename D = int, typename E = int, typename F = int>
std::int64_t systemCall(SystemCall call, A a, B b = 0, C c = 0, D d = 0, E e = 0, F f = 0)
{
    return systemCallWords(call, systemCallWord(a), systemCallWord(b), systemCallWord(c), systemCallWord(d),
                           systemCallWord(e), systemCallWord(f));
}

/// The result of `call` once it has not been interrupted: Wine interrupts the threads of its processes by signals.
template<typename Call>
std::int64_t untilNotInterrupted(Call call)
{
    std::int64_t result = 0;
    do {
        result = call();
    } while (result == -linux_error::interrupted);
    return result;
}

/// Owns a Linux file descriptor.
class Descriptor
{
public:
    Descriptor() = default;
    /// Takes the result of a call that opens: a failed one leaves this empty.
    explicit Descriptor(std::int64_t result) : m_value(result < 0 ? -1 : static_cast<int>(result)) {}
    ~Descriptor() { reset(); }
    Descriptor(Descriptor &&other) noexcept : m_value(std::exchange(other.m_value, -1)) {}
    Descriptor &operator=(Descriptor &&other) noexcept
    {
        std::swap(m_value, other.m_value);
        return *this;
    }

    int get() const { return m_value; }
    explicit operator bool() const { return m_value >= 0; }
    void reset()
    {
        if (m_value >= 0)
            systemCall(SystemCall::close, std::exchange(m_value, -1));
    }

private:
    int m_value = -1;
};

/// Flags of open and its like. Every descriptor is made with closeOnExec: Wine forks to start programs, and one that
/// inherits a TUN would keep it alive.
namespace open_flags {
constexpr int readOnly = 0;
constexpr int writeOnly = 01;
constexpr int readWrite = 02;
constexpr int create = 0100;
constexpr int append = 02000;
constexpr int nonBlocking = 04000;
constexpr int closeOnExec = 02000000;
} // namespace open_flags

} // namespace ruvo::winehost
