#include "pipeload/load_client.h"

#include "ruvoctl/open_pipe.h"

#include <QJsonDocument>

#include <utility>

namespace ruvo::test {

namespace {

using namespace std::chrono_literals;

constexpr auto heartbeatInterval = 3s;
constexpr auto connectTimeout = 30s;
constexpr auto connectRetryInterval = 20ms;
constexpr qsizetype reportedFailures = 10;

} // namespace

LoadClient::LoadClient(const LoadPlan &plan, LoadTotals &totals, quint32 session, quint64 seed, QObject *parent)
    : QObject(parent), m_plan(plan), m_totals(totals), m_session(session), m_mix(plan.sizes, plan.padding, seed)
{
    if (m_mix.random(99) < plan.killPercent)
        m_vanishAfter = m_mix.random(plan.requests);
    connect(&m_heartbeatTimer, &QTimer::timeout, this, [this] {
        m_heartbeatDue = true;
        sendWhatMayBeSent();
    });
    m_clock.start();
}

// A socket that is deleted while connected says so, to members that would be gone by then.
LoadClient::~LoadClient()
{
    if (m_socket)
        m_socket->disconnect(this);
}

void LoadClient::start()
{
    m_connectDeadline = QDeadlineTimer(connectTimeout);
    tryToConnect();
}

// Never waits in the call, which would keep the other clients from their answers.
void LoadClient::tryToConnect()
{
    std::expected<FileHandle, DWORD> pipe = openPipe(pipeName(m_session), 0ms);
    if (pipe) {
        useSocket(socketFor(std::move(*pipe)));
    } else if (m_connectDeadline.hasExpired()) {
        fail(QStringLiteral("cannot connect, error %1").arg(pipe.error()));
    } else {
        ++m_totals.connectRetries;
        QTimer::singleShot(connectRetryInterval, this, &LoadClient::tryToConnect);
    }
}

void LoadClient::useSocket(std::unique_ptr<QLocalSocket> socket)
{
    m_socket = std::move(socket);
    m_state = State::Working;
    connect(m_socket.get(), &QLocalSocket::readyRead, this, &LoadClient::onReadyRead);
    connect(m_socket.get(), &QLocalSocket::bytesWritten, this, &LoadClient::vanishWhenWritten);
    connect(m_socket.get(), &QLocalSocket::disconnected, this,
            [this] { fail(QStringLiteral("disconnected with %1 answers due").arg(m_pending.size())); });
    m_heartbeatTimer.start(heartbeatInterval);
    sendWhatMayBeSent();
}

void LoadClient::sendWhatMayBeSent()
{
    while ((m_state == State::Working || m_state == State::Complete) && m_pending.size() < m_plan.outstanding) {
        if (m_heartbeatDue) {
            m_heartbeatDue = false;
            ++m_totals.heartbeats;
            send(RequestMix::heartbeat(++m_heartbeats));
        } else if (m_sent == m_vanishAfter) {
            vanish();
        } else if (m_sent < m_plan.requests) {
            sendRequest();
        } else {
            return;
        }
    }
}

void LoadClient::sendRequest()
{
    const Request request = m_mix.next(++m_sent, m_plan.maxTotal - m_totals.sentBytes);
    if (request.cut)
        ++m_totals.unpadded;
    ++m_totals.requests;
    send(request);
}

void LoadClient::send(const Request &request)
{
    const QByteArray frame = encodeFrame(request.payload);
    m_totals.sentBytes += frame.size();
    m_pending.enqueue({request.answer, m_clock.nsecsElapsed()});
    m_socket->write(frame);
}

// What it has sent stays unanswered. In some cases half a frame, or half of a length, is the last of it.
void LoadClient::vanish()
{
    m_state = State::Vanishing;
    m_heartbeatTimer.stop();
    const QByteArray frame = encodeFrame(m_mix.next(m_sent + 1, m_plan.sizes.large).payload);
    switch (m_mix.random(3)) {
    case 0: m_socket->write(frame.first(frame.size() / 2)); break;
    case 1: m_socket->write(frame.first(2)); break;
    case 2: break;
    default: return leave(); // even what it has not written yet is lost
    }
    vanishWhenWritten();
}

void LoadClient::vanishWhenWritten()
{
    if (m_state == State::Vanishing && m_socket->bytesToWrite() == 0)
        leave();
}

void LoadClient::leave()
{
    m_state = State::Gone;
    m_socket->disconnect(this);
    m_socket->abort();
    ++m_totals.vanished;
    emit vanished();
}

void LoadClient::onReadyRead()
{
    const QByteArray bytes = m_socket->readAll();
    m_totals.receivedBytes += bytes.size();
    m_decoder.append(bytes);
    while (m_state == State::Working || m_state == State::Complete) {
        const std::optional<QByteArray> payload = m_decoder.next();
        if (!payload)
            break;
        onMessage(*payload);
    }
    sendWhatMayBeSent();
    completeIfAnswered();
}

void LoadClient::onMessage(const QByteArray &payload)
{
    const QJsonObject message = QJsonDocument::fromJson(payload).object();
    const QString text = QString::fromUtf8(payload);
    if (!m_greeted) {
        m_greeted = true;
        if (message["event"] != QJsonValue("connected"))
            fail("the first message is not the connected event: " + text);
        return;
    }
    if (m_pending.isEmpty())
        return fail("a message that is not due: " + text);
    const Pending due = m_pending.dequeue();
    if (message != due.answer)
        return fail(QStringLiteral("not the answer that is due: %1").arg(text));
    ++m_totals.answers;
    m_totals.latenciesMs.push_back(static_cast<float>(m_clock.nsecsElapsed() - due.sentNs) / 1e6F);
}

void LoadClient::completeIfAnswered()
{
    if (m_state != State::Working || m_sent < m_plan.requests || !m_pending.isEmpty())
        return;
    m_state = State::Complete;
    emit done();
}

void LoadClient::fail(const QString &text)
{
    if (++m_totals.failures <= reportedFailures)
        m_totals.firstFailures.append(QStringLiteral("session %1: %2").arg(m_session).arg(text.left(500)));
    const bool wasComplete = std::exchange(m_state, State::Gone) == State::Complete;
    m_heartbeatTimer.stop();
    if (m_socket) {
        m_socket->disconnect(this);
        m_socket->abort();
    }
    if (!wasComplete)
        emit done();
}

} // namespace ruvo::test
