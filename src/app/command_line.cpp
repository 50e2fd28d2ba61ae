#include "app/command_line.h"

#include "app/windows_service.h"

#include <QCommandLineParser>
#include <QCoreApplication>

#include <cstdio>
#include <cstdlib>

namespace ruvo {

namespace {

[[noreturn]] void printAndExit(const QString &text, std::FILE *stream, int status)
{
    std::fputs(text.toUtf8().constData(), stream);
    std::fflush(stream);
    WindowsService &service = WindowsService::instance();
    if (status == EXIT_SUCCESS)
        service.reportStopped();
    else
        service.reportFailed();
    // Not std::exit: the first thread still waits in the dispatcher, on objects that it would destroy.
    std::_Exit(status);
}

} // namespace

Utf8Arguments::Utf8Arguments(int argc, wchar_t **argv) : m_argc(argc)
{
    for (int i = 0; i < argc; ++i)
        m_arguments.push_back(QString::fromWCharArray(argv[i]).toUtf8());
    for (QByteArray &argument : m_arguments)
        m_pointers.push_back(argument.data());
    m_pointers.push_back(nullptr);
}

QStringList Utf8Arguments::toStringList() const
{
    QStringList list;
    for (const QByteArray &argument : m_arguments)
        list.append(QString::fromUtf8(argument));
    return list;
}

// QCommandLineParser::process would show its texts in a message box when there is no console: in a service
// nobody sees that, and nobody can close it.
void processCommandLine(const QStringList &arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription("Ruvo Proxy Client Service");
    const QCommandLineOption help = parser.addHelpOption();
    const QCommandLineOption version = parser.addVersionOption();

    if (!parser.parse(arguments))
        printAndExit(parser.errorText() + u'\n', stderr, EXIT_FAILURE);
    if (parser.isSet(version)) {
        const QString line = QCoreApplication::applicationName() + u' ' + QCoreApplication::applicationVersion();
        printAndExit(line + u'\n', stdout, EXIT_SUCCESS);
    }
    if (parser.isSet(help) || parser.isSet("help-all"))
        printAndExit(parser.helpText(), stdout, EXIT_SUCCESS);
}

} // namespace ruvo
