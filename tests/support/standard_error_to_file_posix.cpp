#include "support/standard_error_to_file.h"

#include <QFile>

#include <fcntl.h>
#include <unistd.h>

namespace ruvo::test {

struct StandardErrorToFile::Data
{
    int before;
};

StandardErrorToFile::StandardErrorToFile(const QString &path) : m_data(new Data{dup(STDERR_FILENO)})
{
    const int file = open(QFile::encodeName(path).constData(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    dup2(file, STDERR_FILENO);
    close(file);
}

StandardErrorToFile::~StandardErrorToFile()
{
    dup2(m_data->before, STDERR_FILENO);
    close(m_data->before);
}

} // namespace ruvo::test
