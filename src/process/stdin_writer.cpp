#include "process/stdin_writer.h"

#include "common/log_category.h"

#include <QDeadlineTimer>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>

namespace ruvo {

namespace {

constexpr DWORD cancelInterval = 10; // ms
constexpr qint64 joinTimeout = 2000; // ms
/// What a request takes besides its bytes: their header, its place in the queue and the heap's share.
constexpr qsizetype requestOverhead = 64;

} // namespace

/// Shared with the thread, which may outlive the writer.
struct StdinWriter::Queue
{
    struct Request
    {
        QByteArray bytes;
        /// Memory that it takes while it waits.
        qsizetype cost = 0;
    };
    enum class Added {
        Waiting,
        Refused,
        RefusedAgain, // and still no room: said already
        Stopped,
    };

    explicit Queue(LaunchContextPointer owner) : launch(std::move(owner)) {}

    const LaunchContextPointer launch;
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Request> requests;
    qsizetype waitingBytes = 0;
    bool refusing = false;
    bool stopped = false;

    Added add(const QByteArray &bytes)
    {
        const qsizetype cost = std::max(bytes.size(), bytes.capacity()) + requestOverhead;
        const std::lock_guard lock(mutex);
        if (stopped)
            return Added::Stopped;
        // Half of it, as a child that reads a byte now and then would make room for a refusal each time.
        if (waitingBytes <= maxWaitingBytes / 2)
            refusing = false;
        if (waitingBytes + cost > maxWaitingBytes)
            return std::exchange(refusing, true) ? Added::RefusedAgain : Added::Refused;
        requests.push_back({bytes, cost});
        waitingBytes += cost;
        return Added::Waiting;
    }

    bool take(Request &request)
    {
        std::unique_lock lock(mutex);
        changed.wait(lock, [this] { return stopped || !requests.empty(); });
        if (stopped)
            return false;
        request = std::move(requests.front());
        requests.pop_front();
        return true;
    }

    void written(const Request &request)
    {
        const std::lock_guard lock(mutex);
        waitingBytes -= request.cost;
    }

    static DWORD WINAPI run(LPVOID parameter)
    {
        const std::unique_ptr<std::shared_ptr<Queue>> own(static_cast<std::shared_ptr<Queue> *>(parameter));
        Queue &queue = **own;
        for (Request request; queue.take(request); request = {}) { // which holds no bytes while there is no next
            DWORD written = 0;
            // What became of it is not examined: the exit of the child is what counts.
            WriteFile(queue.launch->stdinWrite.get(), request.bytes.constData(),
                      static_cast<DWORD>(request.bytes.size()), &written, nullptr);
            queue.written(request);
        }
        return 0;
    }
};

StdinWriter::StdinWriter(LaunchContextPointer launch) : m_queue(std::make_shared<Queue>(std::move(launch))) {}

StdinWriter::~StdinWriter()
{
    stop();
}

void StdinWriter::write(const QByteArray &bytes)
{
    if (bytes.isEmpty()) // a write of nothing reads as the end of the input
        return;
    switch (m_queue->add(bytes)) {
    case Queue::Added::Waiting: break;
    case Queue::Added::Refused:
        qCWarning(lcRuvod) << "[ProcessManager] Standard input of PID" << m_queue->launch->pid
                           << "is not read, dropping bytes:" << bytes.size();
        return;
    case Queue::Added::RefusedAgain:
    case Queue::Added::Stopped: return;
    }
    m_queue->changed.notify_one();
    if (m_thread)
        return;
    auto parameter = std::make_unique<std::shared_ptr<Queue>>(m_queue);
    m_thread.reset(CreateThread(nullptr, 0, Queue::run, parameter.get(), 0, nullptr));
    if (!m_thread) {
        const DWORD error = GetLastError();
        qCWarning(lcRuvod) << "[ProcessManager] Failed to create stdin thread:" << error;
        return;
    }
    static_cast<void>(parameter.release()); // the thread's now
}

void StdinWriter::stop()
{
    {
        const std::lock_guard lock(m_queue->mutex);
        m_queue->stopped = true;
        m_queue->requests.clear();
    }
    m_queue->changed.notify_one();
    if (!m_thread)
        return;
    // Repeated: the thread may be just about to begin the write that has to be cancelled.
    const QDeadlineTimer deadline(joinTimeout);
    while (WaitForSingleObject(m_thread.get(), cancelInterval) == WAIT_TIMEOUT) {
        if (deadline.hasExpired()) {
            qCWarning(lcRuvod) << "[ProcessManager] Standard input thread of PID" << m_queue->launch->pid
                               << "did not end, leaving it behind";
            break;
        }
        CancelSynchronousIo(m_thread.get());
    }
    m_thread.reset();
}

} // namespace ruvo
