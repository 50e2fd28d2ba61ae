#pragma once

#include <QJsonObject>
#include <QString>

namespace ruvo {

// Every JSON object that process supervision produces. Each has a "timestamp": local time in ISO 8601 form, to the
// second, without offset.

/// The answer to a request that was carried out; "message" only if there is one.
QJsonObject createStatusResponse(const QString &status, const QString &message = QString());

/// The answer to a request that failed.
QJsonObject createErrorResponse(const QString &message);

/// What occurred to a process; "data" only if there is any.
QJsonObject createEventObject(const QString &processId, const QString &event, const QString &data = QString());

} // namespace ruvo
