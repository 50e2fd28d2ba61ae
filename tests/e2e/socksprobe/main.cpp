// socksprobe get PROXY PORT TARGET PORT PATH        a page through CONNECT; TARGET is an address or a name
// socksprobe udp PROXY PORT TARGET PORT TEXT...     datagrams through UDP ASSOCIATE, each after the last one's answer
//
// Prints what came of it as a JSON object, with the warnings of the product's code. Every wait is bounded.

#include "common/ipv4.h"
#include "io/completion_port.h"
#include "nat/udp_nat_session.h"
#include "socks5/socks_client.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>
#include <optional>

namespace ruvo::test {
namespace {

constexpr int answerTimeout = 10000; // ms

QStringList s_warnings; // all on the first thread

void keepWarning(QtMsgType, const QMessageLogContext &, const QString &text)
{
    s_warnings.append(text);
}

struct Target
{
    QString proxy;
    std::uint16_t proxyPort = 0;
    QString host;
    std::uint16_t port = 0;
};

bool sendText(SOCKET socket, const QByteArray &text)
{
    return send(socket, text.constData(), static_cast<int>(text.size()), 0) == text.size();
}

/// All until the other side ends the stream; nothing if it fails or does not end it.
std::optional<QByteArray> receiveToTheEnd(SOCKET socket)
{
    const DWORD timeout = answerTimeout;
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char *>(&timeout), sizeof timeout);
    QByteArray received;
    for (;;) {
        char block[65536];
        const int size = recv(socket, block, sizeof block, 0);
        if (size < 0)
            return std::nullopt;
        if (size == 0)
            return received;
        received.append(block, size);
    }
}

QJsonObject get(const Target &target, const QString &path)
{
    SocksClient client(target.proxy.toStdWString(), target.proxyPort);
    const std::uint32_t address = parseIpv4(target.host);
    QElapsedTimer timer;
    timer.start();
    const bool connected = address != 0 ? client.connectTo(address, target.port)
                                        : client.connectTo(target.host.toStdString(), target.port);
    QJsonObject result{{"connected", connected}, {"ms", timer.elapsed()}};
    if (!connected)
        return result;
    client.setNonBlocking(false);
    const QByteArray request = "GET " + path.toUtf8() + " HTTP/1.0\r\n\r\n";
    const std::optional<QByteArray> answer =
        sendText(client.tcpSocket(), request) ? receiveToTheEnd(client.tcpSocket()) : std::nullopt;
    if (!answer)
        return result;
    const QByteArray body = answer->mid(answer->indexOf("\r\n\r\n") + 4);
    result["size"] = body.size();
    result["digest"] = QString::fromLatin1(QCryptographicHash::hash(body, QCryptographicHash::Sha256).toHex());
    if (body.size() < 1000)
        result["text"] = QString::fromUtf8(body);
    return result;
}

/// Sends each text and waits for an answer.
QJsonArray exchange(UdpNatSession &session, CompletionPort &port, const QStringList &texts,
                    const QStringList &answers)
{
    QJsonArray received;
    for (const QString &text : texts) {
        const auto before = answers.size();
        QElapsedTimer timer;
        timer.start();
        const QByteArray bytes = text.toUtf8();
        session.send(
            {reinterpret_cast<const std::uint8_t *>(bytes.constData()), static_cast<std::size_t>(bytes.size())});
        while (answers.size() == before && timer.elapsed() < answerTimeout)
            port.runOne(std::chrono::milliseconds(10));
        received.append(answers.size() > before ? QJsonValue(answers.last()) : QJsonValue());
    }
    return received;
}

QJsonObject udp(const Target &target, const QStringList &texts)
{
    CompletionPort port;
    if (!port.open())
        return {{"error", "no completion port"}};
    const Endpoint endpoint{parseIpv4(target.host), target.port};
    UdpNatLog log;
    const auto session = std::make_shared<UdpNatSession>(FlowKey{}, endpoint, target.proxyPort, log);
    const KernelHandle neverStops(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!session->open(target.proxy.toStdWString(), neverStops.get(), port))
        return {{"opened", false}};
    QStringList answers;
    session->startReceiving(port, [&answers](UdpNatSession &, std::span<const std::uint8_t> payload) {
        answers.append(QString::fromUtf8(reinterpret_cast<const char *>(payload.data()),
                                         static_cast<qsizetype>(payload.size())));
    });
    const QJsonArray received = exchange(*session, port, texts, answers);
    session->close();
    const bool drained = port.drain(std::chrono::seconds(5));
    return {{"opened", true}, {"answers", received}, {"drained", drained}};
}

std::optional<QJsonObject> run(const QStringList &words)
{
    if (words.size() < 7)
        return std::nullopt;
    const Target target{words[2], words[3].toUShort(), words[4], words[5].toUShort()};
    if (words[1] == QLatin1StringView("get"))
        return get(target, words[6]);
    if (words[1] == QLatin1StringView("udp"))
        return udp(target, words.mid(6));
    return std::nullopt;
}

} // namespace
} // namespace ruvo::test

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    qInstallMessageHandler(ruvo::test::keepWarning);
    WSADATA data;
    if (WSAStartup(MAKEWORD(2, 2), &data) != 0)
        return 3;
    auto result = ruvo::test::run(QCoreApplication::arguments());
    if (!result) {
        std::fputs("usage: socksprobe get|udp PROXY PORT TARGET PORT PATH|TEXT...\n", stderr);
        return 2;
    }
    result->insert("warnings", QJsonArray::fromStringList(ruvo::test::s_warnings));
    std::puts(QJsonDocument(*result).toJson(QJsonDocument::Compact).constData());
    return 0;
}
