#include "windows/process/process_manager_fixture.h"

#include <vector>

namespace ruvo {

namespace {

constexpr int poolSize = 20;
constexpr auto untilSwept = std::chrono::milliseconds(1300);

/// Managers that wait for their test: so the second passes for many of them at once.
std::vector<std::unique_ptr<ProcessManager>> s_pool;

/// They have timers, and so go before the application does.
class PoolEnd : public ::testing::Environment
{
public:
    void TearDown() override { s_pool.clear(); }
};
const ::testing::Environment *const s_poolEnd = ::testing::AddGlobalTestEnvironment(new PoolEnd);

} // namespace

std::unique_ptr<ProcessManager> sweptManager()
{
    if (s_pool.empty()) {
        for (int i = 0; i < poolSize; ++i)
            s_pool.push_back(std::make_unique<ProcessManager>());
        test::waitUntil([] { return false; }, untilSwept);
    }
    std::unique_ptr<ProcessManager> manager = std::move(s_pool.back());
    s_pool.pop_back();
    return manager;
}

} // namespace ruvo
