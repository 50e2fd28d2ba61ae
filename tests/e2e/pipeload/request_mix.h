#pragma once

#include <QByteArray>
#include <QJsonObject>

#include <random>

namespace ruvo::test {

/// A request and the answer that the daemon owes to it.
struct Request
{
    QByteArray payload;
    QJsonObject answer;
    /// It has no padding, because it would have become too long.
    bool cut = false;
};

struct RequestSizes
{
    qint64 small = 4096;
    qint64 large = 1'048'576;
    qint64 largePercent = 1;
};

/// Random requests, the same ones for the same seed: unknown and known actions, request-ids of every JSON type
/// and none at all, and padding up to a random size. None changes anything in the daemon.
class RequestMix
{
public:
    /// `padding` is text that large requests take a piece of; see makePadding.
    RequestMix(const RequestSizes &sizes, const QByteArray &padding, quint64 seed);

    /// Text of one- to four-byte characters, longer than `size`, that may be cut at multiples of four.
    static QByteArray makePadding(qint64 size, quint64 seed);

    /// The `number` makes it, and most answers, unlike any other of the same client. It gets no padding if it
    /// would be longer than `maxBytes` with it.
    Request next(qint64 number, qint64 maxBytes);
    static Request heartbeat(qint64 number);

    /// 0 to `max`, both included.
    qint64 random(qint64 max);

private:
    QJsonValue randomId(qint64 number);
    qint64 randomSize();
    void pad(QByteArray &payload, qint64 size);

    const RequestSizes m_sizes;
    const QByteArray m_padding;
    std::mt19937_64 m_random;
};

} // namespace ruvo::test
