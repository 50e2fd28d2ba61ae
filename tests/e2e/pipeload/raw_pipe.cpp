#include "pipeload/raw_pipe.h"

namespace ruvo::test {

namespace {

constexpr qsizetype readSize = 64 * 1024;

} // namespace

RawPipe::RawPipe(FileHandle pipe)
    : m_pipe(std::move(pipe))
    , m_readEvent(CreateEventW(nullptr, TRUE, FALSE, nullptr))
    , m_writeEvent(CreateEventW(nullptr, TRUE, FALSE, nullptr))
{}

RawPipe::Outcome RawPipe::write(QByteArrayView bytes, std::chrono::milliseconds timeout)
{
    OVERLAPPED operation{};
    operation.hEvent = m_writeEvent.get();
    DWORD written = 0;
    const BOOL started = WriteFile(m_pipe.get(), bytes.data(), static_cast<DWORD>(bytes.size()), nullptr, &operation);
    const Outcome outcome = finish(started, operation, written, timeout);
    return outcome == Outcome::Done && written < bytes.size() ? Outcome::Closed : outcome;
}

RawPipe::Outcome RawPipe::read(QByteArray &bytes, std::chrono::milliseconds timeout)
{
    bytes.resize(readSize);
    OVERLAPPED operation{};
    operation.hEvent = m_readEvent.get();
    DWORD read = 0;
    const BOOL started = ReadFile(m_pipe.get(), bytes.data(), static_cast<DWORD>(bytes.size()), nullptr, &operation);
    const Outcome outcome = finish(started, operation, read, timeout);
    bytes.truncate(read);
    return outcome;
}

RawPipe::Outcome RawPipe::finish(BOOL started, OVERLAPPED &operation, DWORD &transferred,
                                 std::chrono::milliseconds timeout)
{
    if (!started && GetLastError() != ERROR_IO_PENDING)
        return Outcome::Closed;
    const bool inTime = WaitForSingleObject(operation.hEvent, static_cast<DWORD>(timeout.count())) == WAIT_OBJECT_0;
    if (!inTime)
        CancelIoEx(m_pipe.get(), &operation);
    // Waits for a cancelled operation too: the kernel may write to its buffer until then.
    if (GetOverlappedResult(m_pipe.get(), &operation, &transferred, TRUE))
        return Outcome::Done;
    return GetLastError() == ERROR_OPERATION_ABORTED ? Outcome::TimedOut : Outcome::Closed;
}

} // namespace ruvo::test
