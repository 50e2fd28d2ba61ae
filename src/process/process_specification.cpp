#include "process/process_specification.h"

#include "common/log_category.h"

#include <QJsonArray>

namespace ruvo {

std::optional<QString> validateProcessSpec(const QJsonObject &spec)
{
    if (spec["process-id"].toString().isEmpty())
        return "Missing or empty process-id";
    if (spec["executable"].toString().isEmpty())
        return "Missing or empty executable";
    return std::nullopt;
}

void parseProcessSpec(const QJsonObject &spec, ProcessInfo &info)
{
    info.processId = spec["process-id"].toString();
    info.executable = spec["executable"].toString();
    info.arguments.clear();
    const QJsonArray arguments = spec["arguments"].toArray();
    for (const QJsonValue &argument : arguments)
        info.arguments.append(argument.toString());
    info.workingDirectory = spec["working-dir"].toString();
    info.environment = spec["environment"].toObject();
    info.privileges = spec["privileges"].toString();
    info.autoRestart = spec["auto-restart"].toBool(false);
    info.maxRestartAttempts = spec["max-restart-attempts"].toInt(3);
    info.restartDelayMs = spec["restart-delay-ms"].toInt(1000);
    info.sessionId = static_cast<quint32>(spec["session-id"].toInt(0));
    qCDebug(lcRuvod) << "[ProcessManager] Will create process in session" << info.sessionId;
}

std::optional<TunDnsOverride> tunDnsOverride(const QJsonObject &spec)
{
    const QJsonObject object = spec["tun-dns-override"].toObject();
    const TunDnsOverride dns{object["address"].toString(), object["iface"].toString()};
    if (dns.address.isEmpty() || dns.interfaceName.isEmpty())
        return std::nullopt;
    return dns;
}

QString commandLine(const ProcessInfo &info)
{
    // Concatenated: with QString::arg, a "%1" in a path would be taken for a place.
    QString line = u'"' + info.executable + u'"';
    for (const QString &argument : info.arguments)
        line += QStringLiteral(" \"") + argument + u'"';
    return line;
}

} // namespace ruvo
