#include "support/standard_error_to_file.h"

#include "common/windows_handles.h"

#include <QDir>

namespace ruvo::test {

struct StandardErrorToFile::Data
{
    HANDLE before;
    FileHandle file;
};

StandardErrorToFile::StandardErrorToFile(const QString &path)
    : m_data(new Data{GetStdHandle(STD_ERROR_HANDLE), FileHandle()})
{
    const std::wstring name = QDir::toNativeSeparators(path).toStdWString();
    m_data->file.reset(CreateFileW(name.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                   OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    SetStdHandle(STD_ERROR_HANDLE, m_data->file.get());
}

StandardErrorToFile::~StandardErrorToFile()
{
    SetStdHandle(STD_ERROR_HANDLE, m_data->before);
}

} // namespace ruvo::test
