#pragma once

#include "common/windows_handles.h"

#include <QByteArray>
#include <QByteArrayView>

#include <chrono>

namespace ruvo::test {

/// A client's pipe without any comfort: what is written goes out as one write, what is not read stays unread.
/// One thread may read while another writes.
class RawPipe
{
public:
    enum class Outcome { Done, Closed, TimedOut };

    explicit RawPipe(FileHandle pipe);

    /// Returns once the whole of `bytes` has been taken.
    Outcome write(QByteArrayView bytes, std::chrono::milliseconds timeout);
    /// Replaces `bytes` with what there is, as soon as there is anything.
    Outcome read(QByteArray &bytes, std::chrono::milliseconds timeout);

private:
    Outcome finish(BOOL started, OVERLAPPED &operation, DWORD &transferred, std::chrono::milliseconds timeout);

    FileHandle m_pipe;
    KernelHandle m_readEvent;
    KernelHandle m_writeEvent;
};

} // namespace ruvo::test
