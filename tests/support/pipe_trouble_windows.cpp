#include "support/pipe_trouble.h"

#include "common/windows_handles.h"
#include "support/wait_until.h"

#include <QLocalSocket>

#include <atomic>
#include <chrono>
#include <thread>

namespace ruvo::test {

namespace {

std::wstring wide(const QString &text)
{
    return text.toStdWString();
}

} // namespace

/// A pipe of that name that allows no more instances than there is room for.
struct PipeNameTaken::Data
{
    FileHandle pipe;
};

PipeNameTaken::PipeNameTaken(const QString &pipeName, unsigned roomFor) : m_data(new Data)
{
    m_data->pipe.reset(
        CreateNamedPipeW(wide(pipeName).c_str(), PIPE_ACCESS_DUPLEX, PIPE_TYPE_BYTE, 1 + roomFor, 0, 0, 0, nullptr));
}

PipeNameTaken::~PipeNameTaken() = default;

bool loseListener(QLocalServer &server, const QString &pipeName)
{
    // The server makes a new instance for each client; one that drops before the server waits on it is an error.
    std::atomic<bool> stop = false;
    std::thread clients([&stop, name = wide(pipeName)] {
        while (!stop)
            FileHandle(
                CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    });
    // With 30 connections that nobody takes the server stops accepting, and its listeners are out of danger.
    const auto isLost = [&server] {
        while (QLocalSocket *accepted = server.nextPendingConnection())
            delete accepted;
        return !server.isListening() || !server.errorString().isEmpty();
    };
    const bool lost = waitUntil(isLost, std::chrono::seconds(60));
    stop = true;
    clients.join();
    return lost;
}

} // namespace ruvo::test
