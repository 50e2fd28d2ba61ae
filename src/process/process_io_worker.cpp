#include "process/process_io_worker.h"

#include <algorithm>
#include <utility>

namespace ruvo {

namespace {

constexpr DWORD chunkSize = 4096;
constexpr DWORD cycle = 50; // ms

} // namespace

ProcessIOWorker::ProcessIOWorker(const QString &processId, LaunchContextPointer launch)
    : m_processId(processId), m_launch(std::move(launch))
{}

ProcessIOWorker::~ProcessIOWorker()
{
    stopReading();
}

void ProcessIOWorker::startReading()
{
    m_running = true;
    // Asked after m_running is set: a stop sees either that, or is seen here.
    if (m_stopRequested)
        m_running = false;
    while (m_running && m_launch->state == QProcess::Running) {
        if (const QByteArray bytes = readAvailable(m_launch->stdoutRead.get()); !bytes.isEmpty())
            emit stdoutReady(m_processId, bytes);
        if (const QByteArray bytes = readAvailable(m_launch->stderrRead.get()); !bytes.isEmpty())
            emit stderrReady(m_processId, bytes);
        Sleep(cycle);
    }
    m_running = false;
}

void ProcessIOWorker::stopReading()
{
    m_stopRequested = true;
    m_running = false;
}

// Never asks for more than is there, as a ReadFile on an empty pipe would block beyond any stop.
QByteArray ProcessIOWorker::readAvailable(HANDLE pipe)
{
    DWORD available = 0;
    if (!pipe || !PeekNamedPipe(pipe, nullptr, 0, nullptr, &available, nullptr) || available == 0)
        return QByteArray();
    char chunk[chunkSize];
    DWORD read = 0;
    if (!ReadFile(pipe, chunk, std::min(available, chunkSize), &read, nullptr))
        return QByteArray();
    return QByteArray(chunk, static_cast<qsizetype>(read));
}

} // namespace ruvo
