#include "common/version.h"
#include "ruvoctl/command_line.h"
#include "ruvoctl/exit_status.h"
#include "ruvoctl/input_reader.h"
#include "ruvoctl/message_stream.h"
#include "ruvoctl/one_request.h"
#include "ruvoctl/open_pipe.h"
#include "ruvoctl/output_writer.h"
#include "ruvoctl/pipe_client.h"
#include "ruvoctl/standard_streams.h"

#include <QCoreApplication>

namespace ruvo {
namespace {

void complain(const QString &text)
{
    writeUtf8(STD_ERROR_HANDLE, "ruvoctl: " + text.toUtf8() + '\n');
}

QString describe(DWORD error)
{
    switch (error) {
    case ERROR_FILE_NOT_FOUND:
        return QStringLiteral("there is no such pipe (is the service running, and a user logged on to the session?)");
    case ERROR_PIPE_BUSY: return QStringLiteral("the service did not take the connection in time");
    default: return QStringLiteral("Windows error %1").arg(error);
    }
}

/// Connects what both modes have in common: their output, their complaints and their end.
template<typename Conversation>
void follow(const Conversation &conversation, OutputWriter &writer)
{
    QObject::connect(&conversation, &Conversation::output, &writer, &OutputWriter::write);
    QObject::connect(&conversation, &Conversation::problem, complain);
    QObject::connect(&conversation, &Conversation::finished, qApp,
                     [](int status) { QCoreApplication::exit(status); });
}

int converse(const CommandLine &line, PipeClient &client)
{
    OutputWriter writer;
    QObject::connect(&writer, &OutputWriter::failed, qApp, [] {
        complain(QStringLiteral("standard output cannot be written"));
        QCoreApplication::exit(ExitError);
    });

    if (line.mode == CommandLine::Mode::OneRequest) {
        OneRequest conversation(client, line.request, line.timeout);
        follow(conversation, writer);
        conversation.start();
        return QCoreApplication::exec();
    }
    MessageStream conversation(client, line.linger, line.timeout);
    follow(conversation, writer);
    InputReader input;
    QObject::connect(&input, &InputReader::received, &conversation, &MessageStream::takeInput);
    QObject::connect(&input, &InputReader::ended, &conversation, &MessageStream::endInput);
    QObject::connect(&conversation, &MessageStream::inputWanted, &input, &InputReader::next);
    input.start();
    return QCoreApplication::exec();
}

int run(const CommandLine &line)
{
    const QString name = pipeName(line.sessionId);
    std::expected<FileHandle, DWORD> pipe = openPipe(name, line.timeout);
    if (!pipe) {
        complain(QStringLiteral("cannot connect to %1: %2").arg(name, describe(pipe.error())));
        return ExitNoConnection;
    }
    PipeClient client(socketFor(std::move(*pipe)));
    if (line.heartbeat)
        client.startHeartbeat();
    return converse(line, client);
}

int runFromArguments(const QStringList &arguments)
{
    const std::expected<CommandLine, QString> line = parseCommandLine(arguments);
    if (!line) {
        complain(line.error() + QStringLiteral("\nTry: ruvoctl --help"));
        return ExitUsage;
    }
    switch (line->mode) {
    case CommandLine::Mode::Help: return writeUtf8(STD_OUTPUT_HANDLE, helpText().toUtf8()) ? ExitSuccess : ExitError;
    case CommandLine::Mode::Version:
        return writeUtf8(STD_OUTPUT_HANDLE, QByteArray("ruvoctl ") + version + '\n') ? ExitSuccess : ExitError;
    case CommandLine::Mode::Stream:
    case CommandLine::Mode::OneRequest: break;
    }
    return run(*line);
}

} // namespace
} // namespace ruvo

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    return ruvo::runFromArguments(QCoreApplication::arguments());
}
