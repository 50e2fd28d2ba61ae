#pragma once

#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <chrono>
#include <expected>

namespace ruvo {

/// What ruvoctl was asked to do.
struct CommandLine
{
    enum class Mode { Help, Version, Stream, OneRequest };

    Mode mode = Mode::Stream;
    quint32 sessionId = 0;
    bool heartbeat = true;
    /// For the connection, for the answer, and for what is still to be sent when the input ends.
    std::chrono::milliseconds timeout{30'000};
    /// Stream mode: how long messages are still printed after the input has ended.
    std::chrono::milliseconds linger{1'000};
    /// With Mode::OneRequest.
    QJsonObject request;
};

/// `arguments` as QCoreApplication gives them, the program first. The error is one sentence for the user.
std::expected<CommandLine, QString> parseCommandLine(const QStringList &arguments);

QString helpText();

} // namespace ruvo
