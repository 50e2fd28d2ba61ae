#pragma once

#include <functional>
#include <thread>

namespace ruvo::test {

/// Runs `work` on a thread in a network namespace of its own, where no engine listens, and waits for its end. Threads
/// that it starts are there too.
void inOtherNamespace(const std::function<void()> &work);

/// In such a namespace: an engine that answers `answers` questions of its one client with success and is gone then.
class BriefEngine
{
public:
    explicit BriefEngine(int answers);
    ~BriefEngine();
    BriefEngine(const BriefEngine &) = delete;
    BriefEngine &operator=(const BriefEngine &) = delete;

private:
    std::thread m_thread;
};

} // namespace ruvo::test
