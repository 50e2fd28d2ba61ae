#pragma once

#include <QStringList>

#include <vector>

namespace ruvo {

/// The process's arguments as UTF-8, in the form that the core application keeps references to: it has to
/// outlive the application.
class Utf8Arguments
{
public:
    Utf8Arguments(int argc, wchar_t **argv);

    int &argc() { return m_argc; }
    char **argv() { return m_pointers.data(); }
    QStringList toStringList() const;

private:
    int m_argc;
    std::vector<QByteArray> m_arguments;
    std::vector<char *> m_pointers;
};

/// Serves --help and --version, and refuses what is no option. Returns if the daemon should run; otherwise the
/// text is printed, the service reported as stopped, and the process ended (status 0, or 1 for a refusal, which is
/// the service's exit code as well).
void processCommandLine(const QStringList &arguments);

} // namespace ruvo
