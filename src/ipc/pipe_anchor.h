#pragma once

#include <QString>

#include <memory>

namespace ruvo {

/// What keeps a pipe's name the daemon's: its first instance, which serves nobody. On Windows all instances of a pipe
/// live under the access list of the first one. QLocalServer's own list lets everybody make instances of the pipe,
/// and so take other users' clients, and change the list; the anchor's lets everybody read and write, and nobody but
/// the daemon's account do more. Callers on the network are refused. Elsewhere there is nothing to keep. Service
/// thread only.
class PipeAnchor
{
public:
    enum class Name {
        unused, ///< no instance of it lives: one that does is a stranger's, and the anchor cannot be opened
        inUse,  ///< connected clients hold instances of it, so that nobody else can have made the first one
    };

    PipeAnchor();
    /// Gives the name up, once no other instance lives. Whoever serves the pipe closes its own instances first.
    ~PipeAnchor();
    PipeAnchor(const PipeAnchor &) = delete;
    PipeAnchor &operator=(const PipeAnchor &) = delete;

    /// Comes before the first instance that serves clients. Empty if that worked, else what failed and why.
    QString open(const QString &pipeName, Name name);
    void close();
    bool isOpen() const;

private:
    struct Instance;
    std::unique_ptr<Instance> m_instance;
};

} // namespace ruvo
