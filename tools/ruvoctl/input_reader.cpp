#include "ruvoctl/input_reader.h"

#include <QMutex>
#include <QSemaphore>
#include <QString>

#include <windows.h>

#include <thread>

namespace ruvo {

struct InputReader::Shared
{
    QSemaphore wanted{1};
    QMutex mutex;
    InputReader *reader = nullptr; // guarded by mutex; null once it is gone

    template<typename Function>
    void tell(Function function)
    {
        const QMutexLocker lock(&mutex);
        if (reader)
            QMetaObject::invokeMethod(
                reader, [this, function] { function(*reader); }, Qt::QueuedConnection);
    }
};

namespace {

constexpr DWORD pieceSize = 64 * 1024;
/// Ctrl+Z, with which a user at a console ends the input.
constexpr wchar_t endOfInput = 0x1A;

// Both return an empty array at the end of the input.

QByteArray readConsole(HANDLE console)
{
    wchar_t text[pieceSize / sizeof(wchar_t)];
    DWORD read = 0;
    if (!ReadConsoleW(console, text, std::size(text), &read, nullptr) || read == 0 || text[0] == endOfInput)
        return QByteArray();
    return QString::fromWCharArray(text, static_cast<qsizetype>(read)).toUtf8();
}

QByteArray readFile(HANDLE file)
{
    QByteArray bytes(pieceSize, Qt::Uninitialized);
    DWORD read = 0;
    // Nothing read is the end of a file; of a pipe only if it is broken too: its writer may have written nothing.
    while (ReadFile(file, bytes.data(), pieceSize, &read, nullptr)) {
        if (read > 0)
            return bytes.first(read);
        if (GetFileType(file) != FILE_TYPE_PIPE || !PeekNamedPipe(file, nullptr, 0, nullptr, nullptr, nullptr))
            break;
    }
    return QByteArray();
}

} // namespace

InputReader::InputReader(QObject *parent) : QObject(parent), m_shared(std::make_shared<Shared>())
{
    m_shared->reader = this;
}

InputReader::~InputReader()
{
    const QMutexLocker lock(&m_shared->mutex);
    m_shared->reader = nullptr;
}

void InputReader::start()
{
    std::thread([shared = m_shared] { run(shared); }).detach();
}

void InputReader::next()
{
    m_shared->wanted.release();
}

void InputReader::run(const std::shared_ptr<Shared> &shared)
{
    const HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
    DWORD mode = 0;
    const bool isConsole = GetConsoleMode(input, &mode);
    while (true) {
        shared->wanted.acquire();
        const QByteArray bytes = isConsole ? readConsole(input) : readFile(input);
        if (bytes.isEmpty())
            break;
        shared->tell([bytes](InputReader &reader) { emit reader.received(bytes); });
    }
    shared->tell([](InputReader &reader) { emit reader.ended(); });
}

} // namespace ruvo
