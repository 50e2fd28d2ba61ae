#include "ipc/pipe_anchor.h"

namespace ruvo {

// A socket's file has one server, and belongs to who made it.
struct PipeAnchor::Instance
{};

PipeAnchor::PipeAnchor() = default;
PipeAnchor::~PipeAnchor() = default;

QString PipeAnchor::open(const QString &, Name)
{
    m_instance = std::make_unique<Instance>();
    return {};
}

void PipeAnchor::close()
{
    m_instance.reset();
}

bool PipeAnchor::isOpen() const
{
    return m_instance != nullptr;
}

} // namespace ruvo
