#pragma once

#include <QByteArray>
#include <QObject>

#include <memory>

namespace ruvo {

/// Reads standard input (file, pipe or console) on a thread of its own, because a read cannot be waited for
/// together with the event loop. The thread stays in a read that may never end when the program does, so it
/// is left behind: it shares nothing with this object but what both own.
class InputReader : public QObject
{
    Q_OBJECT

public:
    explicit InputReader(QObject *parent = nullptr);
    ~InputReader() override;

    void start();
    /// Lets the thread read the piece after the one that `received` gave.
    void next();

signals:
    /// The next piece is read only after `next`.
    void received(const QByteArray &bytes);
    void ended();

private:
    struct Shared;

    static void run(const std::shared_ptr<Shared> &shared);

    const std::shared_ptr<Shared> m_shared;
};

} // namespace ruvo
