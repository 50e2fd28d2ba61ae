#include "ruvoctl/command_line.h"

#include "ruvoctl/request.h"

#include <QCommandLineParser>

#include <limits>
#include <optional>
#include <utility>

namespace ruvo {

namespace {

constexpr qint64 maxMilliseconds = 24LL * 3600 * 1000;

// Stores nothing when the option is absent: its default stays.
template<typename Store>
std::optional<QString> readNumber(const QCommandLineParser &parser, const QString &option, qint64 max, Store store)
{
    if (!parser.isSet(option))
        return std::nullopt;
    bool ok = false;
    const qint64 number = parser.value(option).toLongLong(&ok);
    if (!ok || number < 0 || number > max)
        return QStringLiteral("--%1 takes a number from 0 to %2, not '%3'")
            .arg(option, QString::number(max), parser.value(option));
    store(number);
    return std::nullopt;
}

} // namespace

std::expected<CommandLine, QString> parseCommandLine(const QStringList &arguments)
{
    QCommandLineParser parser;
    parser.addOptions({{{"h", "help"}, {}},
                       {{"v", "version"}, {}},
                       {"session", {}, "N"},
                       {"no-heartbeat", {}},
                       {"timeout", {}, "MS"},
                       {"linger", {}, "MS"}});
    if (!parser.parse(arguments))
        return std::unexpected(parser.errorText());

    CommandLine line;
    if (parser.isSet("help") || parser.isSet("version")) {
        line.mode = parser.isSet("help") ? CommandLine::Mode::Help : CommandLine::Mode::Version;
        return line;
    }

    if (!parser.isSet("session"))
        return std::unexpected(QStringLiteral("--session N is missing: which Windows session's pipe?"));
    line.heartbeat = !parser.isSet("no-heartbeat");
    const auto milliseconds = [](std::chrono::milliseconds &target) {
        return [&target](qint64 number) { target = std::chrono::milliseconds(number); };
    };
    std::optional<QString> error = readNumber(parser, "session", std::numeric_limits<quint32>::max(),
                                              [&](qint64 number) { line.sessionId = static_cast<quint32>(number); });
    if (!error)
        error = readNumber(parser, "timeout", maxMilliseconds, milliseconds(line.timeout));
    if (!error)
        error = readNumber(parser, "linger", maxMilliseconds, milliseconds(line.linger));
    if (error)
        return std::unexpected(*error);

    const QStringList words = parser.positionalArguments();
    if (words.isEmpty())
        return line;
    std::expected<QJsonObject, QString> request = buildRequest(words.first(), words.mid(1));
    if (!request)
        return std::unexpected(request.error());
    line.mode = CommandLine::Mode::OneRequest;
    line.request = std::move(*request);
    return line;
}

QString helpText()
{
    return QStringLiteral(R"(Talks to the ruvod service through the named pipe of a Windows session.

  ruvoctl --session N [options] ACTION [key=text | key:=json ...]
      Sends one request and prints its answer.

  ruvoctl --session N [options]
      Sends each line of standard input, which must be a JSON object, as a message, and prints every message
      that comes (answers and events), one line of JSON each, until the input ends. Blank lines are skipped.

Options:
  --session N      Windows session whose pipe (\\.\pipe\ruvod-N) to connect to
  --timeout MS     give up when there is no connection or no answer after this time (default 30000)
  --linger MS      after the end of the input, print what still comes for this time (default 1000)
  --no-heartbeat   do not send "heartbeat" every 3 seconds; the service then drops the connection after 10 to 15 s
  -h, --help       show this text
  -v, --version    show the version

The service stops what a client started when that client disconnects: to keep a process or the tunnel running,
start it from standard input and keep the input open.

Examples:
  ruvoctl --session 1 heartbeat
  ruvoctl --session 1 client-hello log-path=C:\ProgramData\Ruvo\ruvod.log version=2.0.1
  ruvoctl --session 1 --timeout 5000 status process-id=core
  ruvoctl --session 1 start process-id=core executable=C:\core\core.exe arguments:=[\"run\"] auto-restart:=true
  ruvoctl --session 1 --linger 5000 < requests.txt

Exit status:
  0  success
  1  the answer's "status" is "error" or its "success" is false; a line of the input was no JSON object; or
     standard output cannot be written (the answers to lines of the input do not count)
  2  no connection, the connection was lost, or no answer in time
  3  the command line is wrong
)");
}

} // namespace ruvo
