#include "pipeload/commands.h"
#include "ruvoctl/standard_streams.h"

#include <QCoreApplication>

namespace ruvo::test {
namespace {

struct Command
{
    const char *name;
    int (*run)(Arguments);
    const char *help;
};

constexpr Command commands[] = {
    {"load", runLoad, R"(  load     many clients at once; every answer must come once, in order, with its request-id
           --sessions 1,2 --clients 200 --requests 1000 --outstanding 8 --small-size 4096 --max-size 1048576
           --large-percent 1 --max-total BYTES (2 GiB, then no padding) --kill-percent 0 --seed 1 --timeout MS (without progress)
)"},
    {"storm", runStorm,
     R"(  storm    connections that are dropped at once, and how good clients fare meanwhile and afterwards
           --session 1 --count 10000 --threads 4 --probe 1,2 --timeout MS
)"},
    {"silent", runSilent, R"(  silent   clients that never send a byte: when is each of them dropped?
           --session 1 --count 100 --hold MS (20000) --probe SESSIONS (none)
)"},
    {"deaf", runDeaf, R"(  deaf     a client that sends and never reads: when is it disconnected?
           --session 1 --bytes 134217728 --request-size 65536 --hold MS (10000)
)"},
    {"raw", runRaw, R"(  raw      does what standard input says, and prints what comes, one message a line
           --session 1;  lines:  hex BYTES | text JSON | sleep-until-message MS | expect-none MS |
           expect-disconnect MS | close
)"},
};

QByteArray helpText()
{
    QByteArray text = "pipeload COMMAND [--option value ...]: clients for tests of the service's pipes\n";
    for (const Command &command : commands)
        text += command.help;
    return text;
}

int run(const QStringList &arguments)
{
    for (const Command &command : commands) {
        if (arguments.value(1) == QLatin1StringView(command.name))
            return command.run(Arguments(arguments.mid(2)));
    }
    throw UsageError(helpText().constData());
}

} // namespace
} // namespace ruvo::test

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    try {
        return ruvo::test::run(QCoreApplication::arguments());
    } catch (const ruvo::test::UsageError &error) {
        ruvo::writeUtf8(STD_ERROR_HANDLE, QByteArray("pipeload: ") + error.what() + '\n');
        return ruvo::test::ExitUsage;
    }
}
