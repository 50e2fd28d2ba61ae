#include "ruvoctl/request.h"

#include "ruvoctl/exit_status.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace ruvo {

namespace {

struct Field
{
    QString key;
    QJsonValue value;
};

// QJsonDocument takes objects and arrays only, so that any other value needs an array around it.
std::expected<QJsonValue, QString> parseValue(const QString &text)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson('[' + text.toUtf8() + ']', &error);
    if (error.error != QJsonParseError::NoError)
        return std::unexpected(error.errorString());
    if (document.array().size() != 1)
        return std::unexpected(QStringLiteral("not exactly one value"));
    return document.array().first();
}

std::expected<Field, QString> parseField(const QString &field)
{
    const qsizetype equals = field.indexOf(u'=');
    const bool isJson = equals > 0 && field[equals - 1] == u':';
    const QString key = field.left(isJson ? equals - 1 : equals);
    if (equals < 0 || key.isEmpty())
        return std::unexpected(QStringLiteral("'%1' is neither key=text nor key:=json").arg(field));

    const QString text = field.mid(equals + 1);
    if (!isJson)
        return Field{key, text};
    const std::expected<QJsonValue, QString> value = parseValue(text);
    if (!value)
        return std::unexpected(QStringLiteral("the value of '%1' is no JSON: %2").arg(field, value.error()));
    return Field{key, *value};
}

} // namespace

std::expected<QJsonObject, QString> buildRequest(const QString &action, const QStringList &fields)
{
    QJsonObject request{{"action", action}};
    for (const QString &text : fields) {
        const std::expected<Field, QString> field = parseField(text);
        if (!field)
            return std::unexpected(field.error());
        if (request.contains(field->key))
            return std::unexpected(QStringLiteral("'%1' gives \"%2\" a second time").arg(text, field->key));
        request.insert(field->key, field->value);
    }
    if (!request.contains("request-id"))
        request.insert("request-id", "ruvoctl");
    return request;
}

std::expected<QByteArray, QString> requestFromLine(const QByteArray &line)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(line, &error);
    if (error.error != QJsonParseError::NoError)
        return std::unexpected(QStringLiteral("%1 at byte %2").arg(error.errorString()).arg(error.offset));
    if (!document.isObject())
        return std::unexpected(QStringLiteral("an array"));
    return line.trimmed();
}

bool isAnswerTo(const QJsonValue &requestId, const QJsonObject &message)
{
    const auto id = message.constFind("request-id");
    return id != message.constEnd() && *id == requestId;
}

int exitStatusOf(const QJsonObject &answer)
{
    const bool failed = answer["status"].toString() == "error" || answer["success"] == QJsonValue(false);
    return failed ? ExitError : ExitSuccess;
}

QByteArray toCompactJson(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

} // namespace ruvo
