#include "process/stdin_writer.h"

#include "common/log_category.h"

#include <QDeadlineTimer>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>

namespace ruvo {

namespace {

constexpr DWORD cancelInterval = 10; // ms
constexpr qint64 joinTimeout = 2000; // ms

} // namespace

/// Shared with the thread, which may outlive the writer.
struct StdinWriter::Queue
{
    explicit Queue(LaunchContextPointer owner) : launch(std::move(owner)) {}

    const LaunchContextPointer launch;
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<QByteArray> requests;
    qsizetype waitingBytes = 0;
    bool stopped = false;

    bool take(QByteArray &request)
    {
        std::unique_lock lock(mutex);
        changed.wait(lock, [this] { return stopped || !requests.empty(); });
        if (stopped)
            return false;
        request = std::move(requests.front());
        requests.pop_front();
        return true;
    }

    void written(qsizetype size)
    {
        const std::lock_guard lock(mutex);
        waitingBytes -= size;
    }

    static DWORD WINAPI run(LPVOID parameter)
    {
        const std::unique_ptr<std::shared_ptr<Queue>> own(static_cast<std::shared_ptr<Queue> *>(parameter));
        Queue &queue = **own;
        QByteArray request;
        while (queue.take(request)) {
            DWORD written = 0;
            // What became of it is not examined: the exit of the child is what counts.
            WriteFile(queue.launch->stdinWrite.get(), request.constData(), static_cast<DWORD>(request.size()),
                      &written, nullptr);
            queue.written(request.size());
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
    {
        const std::lock_guard lock(m_queue->mutex);
        if (m_queue->stopped)
            return;
        if (m_queue->waitingBytes + bytes.size() > maxWaitingBytes) {
            qCWarning(lcRuvod) << "[ProcessManager] Standard input of PID" << m_queue->launch->pid
                               << "is not read, dropping bytes:" << bytes.size();
            return;
        }
        m_queue->requests.push_back(bytes);
        m_queue->waitingBytes += bytes.size();
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
