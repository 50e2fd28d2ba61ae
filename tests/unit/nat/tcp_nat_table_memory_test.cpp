// The table without memory, by replacing the allocation functions of this whole program.

#include "unit/nat/tcp_nat_table_fixture.h"

#include <cstdlib>
#include <new>

namespace {

/// Which allocation fails, counted from now on; 0: none.
std::size_t s_failing = 0;

void *allocate(std::size_t size) noexcept
{
    if (s_failing != 0 && --s_failing == 0)
        return nullptr;
    return std::malloc(size == 0 ? 1 : size);
}

} // namespace

// None of them is inlined: the compiler would see malloc meet an operator delete, or free an operator new, and warn.

[[gnu::noinline]] void *operator new(std::size_t size)
{
    if (void *memory = allocate(size))
        return memory;
    throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void *memory) noexcept
{
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void *memory, std::size_t) noexcept
{
    std::free(memory);
}

namespace ruvo {
namespace {

using TcpNatTableMemory = TcpNatTableTest;

TEST_F(TcpNatTableMemory, keepsNothingOfAConnectionThatThereIsNoneFor)
{
    constexpr std::size_t connections = 100; // the list of what was opened asks for more memory now and then only
    std::size_t refusals = 0;
    while (m_table.size() < connections) {
        const std::size_t before = m_table.size();
        const int port = static_cast<int>(before) + 1;
        // Each of its allocations in turn, until it needs no more of them.
        for (std::size_t failing = 1; m_table.size() == before; ++failing) {
            ASSERT_LT(failing, 20u);
            s_failing = failing;
            try {
                open(port);
                s_failing = 0;
            } catch (const std::bad_alloc &) {
                ++refusals;
                ASSERT_EQ(m_table.size(), before) << "its port is free again";
                ASSERT_EQ(find(port), 0);
            }
        }
        ASSERT_NE(find(port), 0);
    }
    EXPECT_GT(refusals, 3 * connections) << "a session, who holds it, the map, and now and then the list";
    pass(TcpNatTable::acceptTime);
    m_table.expire();
    EXPECT_EQ(m_table.size(), 0u);
}

TEST_F(TcpNatTableMemory, leavesASessionAloneThatCannotBeReplaced)
{
    const TcpNatSessionPtr old = accepted(5000);
    s_failing = 1;
    EXPECT_THROW(m_table.accept(old->natPort), std::bad_alloc);
    EXPECT_EQ(m_table.findByNatPort(old->natPort), old);
    EXPECT_EQ(find(5000), old->natPort);
    EXPECT_NE(m_table.accept(old->natPort), old) << "once there is memory";
}

} // namespace
} // namespace ruvo
