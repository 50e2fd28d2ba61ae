#include "daemon/process_ownership.h"

#include <gtest/gtest.h>

namespace ruvo {
namespace {

QStringList sorted(QStringList list)
{
    list.sort();
    return list;
}

TEST(ProcessOwnership, knowsNoOwnerOfAnUnknownProcess)
{
    const ProcessOwnership ownership;
    EXPECT_EQ(ownership.owner("core"), std::nullopt);
    EXPECT_EQ(ownership.ownedBy("client"), QStringList());
}

TEST(ProcessOwnership, givesEachProcessOneOwnerTheLatest)
{
    ProcessOwnership ownership;
    ownership.setOwner("core", "first");
    ownership.setOwner("core", "second");
    EXPECT_EQ(ownership.owner("core"), QString("second"));
    EXPECT_EQ(ownership.ownedBy("first"), QStringList());
    EXPECT_EQ(ownership.ownedBy("second"), QStringList{"core"});
}

TEST(ProcessOwnership, listsAllProcessesOfAClientAndNoOthers)
{
    ProcessOwnership ownership;
    ownership.setOwner("a", "one");
    ownership.setOwner("b", "two");
    ownership.setOwner("c", "one");
    EXPECT_EQ(sorted(ownership.ownedBy("one")), (QStringList{"a", "c"}));
    EXPECT_EQ(ownership.ownedBy("two"), QStringList{"b"});
}

TEST(ProcessOwnership, tellsCaseApart)
{
    ProcessOwnership ownership;
    ownership.setOwner("core", "one");
    EXPECT_EQ(ownership.owner("Core"), std::nullopt);
    EXPECT_EQ(ownership.ownedBy("One"), QStringList());
}

TEST(ProcessOwnership, keepsAProcessWithAnEmptyNameAsAnyOther)
{
    ProcessOwnership ownership;
    ownership.setOwner("", "one");
    EXPECT_EQ(ownership.owner(""), QString("one"));
}

TEST(ProcessOwnership, forgetsARemovedProcessOnly)
{
    ProcessOwnership ownership;
    ownership.setOwner("a", "one");
    ownership.setOwner("b", "one");
    ownership.remove("a");
    ownership.remove("unknown");
    EXPECT_EQ(ownership.owner("a"), std::nullopt);
    EXPECT_EQ(ownership.ownedBy("one"), QStringList{"b"});
}

} // namespace
} // namespace ruvo
