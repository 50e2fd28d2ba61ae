#include "io/completion_port.h"

#include <utility>

namespace ruvo {

namespace {

/// Layered providers may hand out sockets that are no handles of the system's, whose completions would be lost. They
/// take part for the whole process or not at all.
bool areSocketsHandles(SOCKET socket)
{
    WSAPROTOCOL_INFOW provider{};
    int size = sizeof(provider);
    return getsockopt(socket, SOL_SOCKET, SO_PROTOCOL_INFOW, reinterpret_cast<char *>(&provider), &size) == 0
           && (provider.dwServiceFlags1 & XP1_IFS_HANDLES) != 0;
}

} // namespace

bool skipPortOnSuccess(SOCKET socket)
{
    static const bool s_areHandles = areSocketsHandles(socket);
    return s_areHandles
           && SetFileCompletionNotificationModes(reinterpret_cast<HANDLE>(socket),
                                                 FILE_SKIP_COMPLETION_PORT_ON_SUCCESS
                                                     | FILE_SKIP_SET_EVENT_ON_HANDLE);
}

bool CompletionPort::open()
{
    m_port.reset(CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0));
    return isOpen();
}

bool CompletionPort::associate(SOCKET socket, CompletionKey key)
{
    return CreateIoCompletionPort(reinterpret_cast<HANDLE>(socket), m_port.get(), std::to_underlying(key), 0)
           == m_port.get();
}

void CompletionPort::begin(IoOperation &operation, std::shared_ptr<void> record)
{
    static_cast<OVERLAPPED &>(operation) = OVERLAPPED{};
    operation.m_record = std::move(record);
    ++m_inFlight;
}

void CompletionPort::abandon(IoOperation &operation)
{
    --m_inFlight;
    operation.m_record.reset();
}

bool CompletionPort::post(IoOperation &operation, std::shared_ptr<void> record, CompletionKey key, DWORD bytes)
{
    begin(operation, std::move(record));
    if (PostQueuedCompletionStatus(m_port.get(), bytes, std::to_underlying(key), &operation))
        return true;
    abandon(operation);
    return false;
}

CompletionPort::Outcome CompletionPort::runOne(std::chrono::milliseconds timeout)
{
    DWORD bytes = 0;
    ULONG_PTR key = 0;
    OVERLAPPED *overlapped = nullptr;
    const BOOL succeeded =
        GetQueuedCompletionStatus(m_port.get(), &bytes, &key, &overlapped, static_cast<DWORD>(timeout.count()));
    const DWORD error = succeeded ? NO_ERROR : GetLastError();
    if (!overlapped)
        return succeeded || error == WAIT_TIMEOUT ? Outcome::Nothing : Outcome::Failed;

    auto &operation = static_cast<IoOperation &>(*overlapped);
    // Taken out first: the handler may issue the next call with the same operation, and the record (with the
    // operation in it) may go with this very reference.
    const std::shared_ptr<void> record = std::move(operation.m_record);
    operation.completed(record, bytes, error);
    --m_inFlight;
    return Outcome::Completed;
}

void CompletionPort::wakeOne()
{
    PostQueuedCompletionStatus(m_port.get(), 0, 0, nullptr);
}

bool CompletionPort::drain(std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    constexpr std::chrono::milliseconds slice{10};
    while (m_inFlight > 0 && std::chrono::steady_clock::now() < deadline)
        runOne(slice);
    return m_inFlight == 0;
}

} // namespace ruvo
