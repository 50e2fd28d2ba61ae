#pragma once

#include <QString>

#include <memory>

namespace ruvo::test {

/// For as long as it lives, the process's standard error is this file.
class StandardErrorToFile
{
public:
    explicit StandardErrorToFile(const QString &path);
    ~StandardErrorToFile();
    StandardErrorToFile(const StandardErrorToFile &) = delete;
    StandardErrorToFile &operator=(const StandardErrorToFile &) = delete;

private:
    struct Data;
    const std::unique_ptr<Data> m_data;
};

} // namespace ruvo::test
