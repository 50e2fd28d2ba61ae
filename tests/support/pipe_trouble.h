#pragma once

#include <QLocalServer>
#include <QString>

#include <memory>

namespace ruvo::test {

// What befalls a pipe server on each system, in that system's own calls.

/// For as long as it lives, no server can listen on `pipeName`. On Windows one can make `roomFor` instances of the
/// pipe before it fails.
class PipeNameTaken
{
public:
    explicit PipeNameTaken(const QString &pipeName, unsigned roomFor = 0);
    ~PipeNameTaken();
    PipeNameTaken(const PipeNameTaken &) = delete;
    PipeNameTaken &operator=(const PipeNameTaken &) = delete;

private:
    struct Data;
    const std::unique_ptr<Data> m_data;
};

/// Makes `server`, which listens on `pipeName`, lose a listener as it does in the field; false if it did not.
/// Natively it runs out of descriptors, on Windows a client connects and drops at once.
bool loseListener(QLocalServer &server, const QString &pipeName);

} // namespace ruvo::test
