#include "pipeload/request_mix.h"

#include "ruvoctl/request.h"

#include <QJsonArray>

#include <algorithm>
#include <iterator>

namespace ruvo::test {

namespace {

/// A character that is longer in JSON than in memory, one of each length in UTF-8, and a control character.
constexpr char awkward[] = "\"\\/\xC3\xA9\xE2\x82\xAC\xF0\x9F\x9A\x80\t";
constexpr qint64 paddingUnit = 4;

QJsonObject success()
{
    return {{"status", "success"}};
}

QJsonObject failure(const QString &text)
{
    return {{"status", "error"}, {"error", text}};
}

} // namespace

RequestMix::RequestMix(const RequestSizes &sizes, const QByteArray &padding, quint64 seed)
    : m_sizes(sizes), m_padding(padding), m_random(seed)
{}

QByteArray RequestMix::makePadding(qint64 size, quint64 seed)
{
    static constexpr const char *units[] = {"abcd", "\xC3\xA9\xC3\xBC", "\xE2\x82\xAC ", "\xF0\x9F\x9A\x80", "{}[]",
                                            "0,:7"};
    std::mt19937_64 random(seed);
    QByteArray padding;
    padding.reserve(2 * size + paddingUnit);
    while (padding.size() <= 2 * size)
        padding.append(units[random() % std::size(units)]);
    return padding;
}

qint64 RequestMix::random(qint64 max)
{
    return std::uniform_int_distribution<qint64>(0, max)(m_random);
}

Request RequestMix::next(qint64 number, qint64 maxBytes)
{
    QJsonObject request;
    QJsonObject answer;
    switch (random(9)) {
    case 0:
    case 1:
        request = {{"action", "heartbeat"}};
        answer = success();
        break;
    case 2:
        request = {{"action", "client-hello"}, {"version", "99.0"}};
        answer = failure("Log path cannot be empty");
        break;
    case 3:
        request = {{"action", number}};
        answer = failure("Unknown action: ");
        break;
    default: {
        const QString action = "nosuch-" + QString::number(number) + QString::fromUtf8(awkward);
        request = {{"action", action}};
        answer = failure("Unknown action: " + action);
    }
    }
    if (const QJsonValue id = randomId(number); !id.isUndefined()) {
        request["request-id"] = id;
        answer["request-id"] = id;
    }
    Request result{.payload = toCompactJson(request), .answer = answer};
    const qint64 size = randomSize();
    result.cut = size > maxBytes;
    if (!result.cut)
        pad(result.payload, size);
    return result;
}

Request RequestMix::heartbeat(qint64 number)
{
    const QString id = "heartbeat-" + QString::number(number);
    return {.payload = toCompactJson({{"action", "heartbeat"}, {"request-id", id}}),
            .answer = {{"status", "success"}, {"request-id", id}}};
}

QJsonValue RequestMix::randomId(qint64 number)
{
    switch (random(11)) {
    case 0: return QString::number(number);
    case 1: return QString::number(number) + QString::fromUtf8(awkward);
    case 2: return QString::number(number) + QString(random(4000), QChar(u'\u20AC'));
    case 3: return number;
    case 4: return -number;
    case 5: return 9'007'199'254'740'993 + number; // a double would lose its last digit
    case 6: return static_cast<double>(number) + 0.1;
    case 7: return number % 2 == 0;
    case 8: return QJsonValue::Null;
    case 9: return QJsonArray{number, "two", QJsonArray{}, QJsonValue::Null};
    case 10: return QJsonObject{{"id", number}, {"request-id", QJsonObject{{"deep", true}}}, {"", 1e-300}};
    default: return QJsonValue::Undefined; // none at all
    }
}

qint64 RequestMix::randomSize()
{
    if (random(99) < m_sizes.largePercent)
        return m_sizes.small + random(std::max<qint64>(0, m_sizes.large - m_sizes.small));
    return random(m_sizes.small);
}

// Into the finished text, before its last brace: the padding then costs one copy.
void RequestMix::pad(QByteArray &payload, qint64 size)
{
    static const QByteArray before = R"(,"padding":")";
    static const QByteArray after = R"("})";
    const qint64 room = size - (payload.size() - 1 + before.size() + after.size());
    if (room <= 0)
        return;
    const qint64 length = room / paddingUnit * paddingUnit;
    const qint64 start = random((m_padding.size() - length) / paddingUnit) * paddingUnit;
    payload.reserve(size);
    payload.chop(1);
    payload += before;
    payload += QByteArrayView(m_padding).sliced(start, length);
    payload += after;
}

} // namespace ruvo::test
