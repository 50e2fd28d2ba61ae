#pragma once

#include "ipc/pipe_anchor.h"

#include <QLocalServer>
#include <QObject>

namespace ruvo {

/// The named pipe of one Windows session. Service thread only.
class SessionServer : public QObject
{
    Q_OBJECT

public:
    SessionServer(quint32 sessionId, const QString &pipeName, QObject *parent = nullptr);
    /// Closes the pipe and removes its name.
    ~SessionServer() override;

    /// Listens, open to every local user. True at once if it already listens as it should; a server that has
    /// lost a listener (see isComplete) is opened again. False (and a warning is logged) if the pipe cannot be
    /// made, for example because somebody else has made one of that `name`.
    bool start(PipeAnchor::Name name = PipeAnchor::Name::unused);

    quint32 sessionId() const { return m_sessionId; }
    QString pipeName() const { return m_pipeName; }
    /// Another one after each `start` that opened the pipe.
    QLocalServer &server() { return *m_server; }

signals:
    void newConnection();

private:
    void replaceServer();
    bool open(PipeAnchor::Name name, QString &error);
    bool listen(QString &error);
    bool isComplete() const;

    const quint32 m_sessionId;
    const QString m_pipeName;
    PipeAnchor m_anchor;
    QLocalServer *m_server = nullptr;
};

} // namespace ruvo
