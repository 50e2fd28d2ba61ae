#include "process/process_messages.h"

#include <QDateTime>

namespace ruvo {

namespace {

QString timestamp()
{
    return QDateTime::currentDateTime().toString(Qt::ISODate);
}

} // namespace

QJsonObject createStatusResponse(const QString &status, const QString &message)
{
    QJsonObject response{{"status", status}, {"timestamp", timestamp()}};
    if (!message.isEmpty())
        response["message"] = message;
    return response;
}

QJsonObject createErrorResponse(const QString &message)
{
    return {{"status", "error"}, {"error", message}, {"timestamp", timestamp()}};
}

QJsonObject createEventObject(const QString &processId, const QString &event, const QString &data)
{
    QJsonObject object{{"process-id", processId}, {"event", event}, {"timestamp", timestamp()}};
    if (!data.isEmpty())
        object["data"] = data;
    return object;
}

} // namespace ruvo
