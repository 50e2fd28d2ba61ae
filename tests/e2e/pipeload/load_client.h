#pragma once

#include "ipc/frame.h"
#include "pipeload/request_mix.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QLocalSocket>
#include <QObject>
#include <QQueue>
#include <QTimer>

#include <memory>
#include <vector>

namespace ruvo::test {

struct LoadPlan
{
    qint64 requests = 1000;
    qint64 outstanding = 8;
    qint64 maxTotal = 0;
    qint64 killPercent = 0;
    RequestSizes sizes;
    QByteArray padding;
};

/// What all clients together have done.
struct LoadTotals
{
    qint64 requests = 0;
    qint64 heartbeats = 0;
    qint64 answers = 0;
    qint64 sentBytes = 0;
    qint64 receivedBytes = 0;
    /// Requests that got no padding, because it would have gone beyond LoadPlan::maxTotal.
    qint64 unpadded = 0;
    qint64 vanished = 0;
    qint64 connectRetries = 0;
    qint64 failures = 0;
    QJsonArray firstFailures;
    std::vector<float> latenciesMs;
};

/// One client: sends its share of requests, never more than LoadPlan::outstanding without an answer, heartbeats
/// included, and compares each answer with the one that is due. Stays connected when it is done, so that an
/// answer too many is noticed. A doomed one vanishes at a random point instead.
class LoadClient : public QObject
{
    Q_OBJECT

public:
    LoadClient(const LoadPlan &plan, LoadTotals &totals, quint32 session, quint64 seed, QObject *parent);
    ~LoadClient() override;

    void start();

signals:
    /// Once: all answers came, or the client failed.
    void done();
    /// Once, in place of done.
    void vanished();

private:
    enum class State { Connecting, Working, Complete, Vanishing, Gone };
    struct Pending
    {
        QJsonObject answer;
        qint64 sentNs;
    };

    void tryToConnect();
    void useSocket(std::unique_ptr<QLocalSocket> socket);
    void sendWhatMayBeSent();
    void sendRequest();
    void send(const Request &request);
    void vanish();
    void vanishWhenWritten();
    void leave();
    void onReadyRead();
    void onMessage(const QByteArray &payload);
    void completeIfAnswered();
    void fail(const QString &text);

    const LoadPlan &m_plan;
    LoadTotals &m_totals;
    const quint32 m_session;
    RequestMix m_mix;
    std::unique_ptr<QLocalSocket> m_socket;
    FrameDecoder m_decoder;
    QQueue<Pending> m_pending;
    QTimer m_heartbeatTimer;
    QElapsedTimer m_clock;
    QDeadlineTimer m_connectDeadline;
    State m_state = State::Connecting;
    /// The number of requests after which a doomed client vanishes; -1 for one that is not doomed.
    qint64 m_vanishAfter = -1;
    qint64 m_sent = 0;
    qint64 m_heartbeats = 0;
    bool m_heartbeatDue = false;
    bool m_greeted = false;
};

} // namespace ruvo::test
