#pragma once

#include "process/launch_context.h"

#include <QByteArray>

#include <memory>

namespace ruvo {

/// Writes to the standard input of one run of a child, in order, one WriteFile for each request, on a thread that
/// starts with the first of them: a child that does not read holds up this thread and nobody else.
///
/// Used from the service thread.
class StdinWriter
{
public:
    /// What may wait for the child, in bytes: the memory that the requests take and 64 bytes for each. What would go
    /// beyond it is dropped, with one warning until half of it is free again.
    static constexpr qsizetype maxWaitingBytes = 16 * 1024 * 1024;

    explicit StdinWriter(LaunchContextPointer launch);
    /// As stop().
    ~StdinWriter();
    StdinWriter(const StdinWriter &) = delete;
    StdinWriter &operator=(const StdinWriter &) = delete;

    /// Nothing is written any more after stop(). An empty request is none: the child would read it as the end.
    void write(const QByteArray &bytes);
    /// Drops what waits, ends a write that blocks, and joins the thread. After 2 s the thread is left behind, with
    /// a warning; it keeps the run's handles.
    void stop();

private:
    struct Queue;

    const std::shared_ptr<Queue> m_queue;
    KernelHandle m_thread;
};

} // namespace ruvo
