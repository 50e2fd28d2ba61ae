#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <expected>

namespace ruvo {

/// One request from the words of a command line: `fields` are "key=text" or "key:=json". Text stays text;
/// JSON may be any value. A "request-id" is added unless a field gives one. The error says what is wrong
/// with which field.
std::expected<QJsonObject, QString> buildRequest(const QString &action, const QStringList &fields);

/// One request from a line of text: its JSON as it was typed (numbers of any precision stay what they are),
/// without the blanks around it. The error says why it is no JSON object.
std::expected<QByteArray, QString> requestFromLine(const QByteArray &line);

/// Whether `message` answers the request that carried `requestId`. Events never do.
bool isAnswerTo(const QJsonValue &requestId, const QJsonObject &message);

/// ExitError for an answer with "status": "error" or "success": false, ExitSuccess for any other.
int exitStatusOf(const QJsonObject &answer);

QByteArray toCompactJson(const QJsonObject &object);

} // namespace ruvo
