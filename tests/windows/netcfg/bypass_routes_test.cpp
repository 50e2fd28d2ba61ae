// Bypass routes and their notes: what is there when the process ends at any moment.

#include "netcfg/bypass_routes.h"

#include "support/log_capture.h"
#include "support/qt_printers.h"
#include "windows/netcfg/bypass_notes_key.h"
#include "windows/netcfg/fake_ip_helper.h"
#include "windows/support/import_redirection.h"

#include <gmock/gmock.h>

namespace ruvo {
namespace {

using test::ImportRedirection;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

constexpr BypassRoute resolver{0x08080808, 0xC0000201, 12};
constexpr BypassRoute onLink{0x01010101, 0, 12};

const QString resolverText = "8.8.8.8/32 via 192.0.2.1 on luid 0 index 12";
const QString onLinkText = "1.1.1.1/32 via 0.0.0.0 on luid 0 index 12";

class BypassRoutesTest : public ::testing::Test
{
protected:
    test::LogCapture m_log;
    test::FakeIpHelper m_ipHelper;
    const test::NotesKey m_key;
    const BypassRouteNotes m_notes{m_key.path};
    BypassRoutes m_routes{m_notes};
};

TEST_F(BypassRoutesTest, areNotedAsLongAsTheyAreThere)
{
    m_routes.add(resolver);
    m_routes.add(onLink);
    EXPECT_THAT(m_notes.routes(), UnorderedElementsAre(resolver, onLink));
    m_routes.removeAll();
    EXPECT_THAT(m_notes.routes(), IsEmpty());
    EXPECT_EQ(m_ipHelper.calls,
              (QStringList{"CreateIpForwardEntry2 " + resolverText + " metric 0 protocol 3",
                           "CreateIpForwardEntry2 " + onLinkText + " metric 0 protocol 3",
                           "DeleteIpForwardEntry2 " + resolverText, "DeleteIpForwardEntry2 " + onLinkText}));
    m_routes.removeAll();
    EXPECT_EQ(m_ipHelper.calls.size(), 4) << "once";
}

TEST_F(BypassRoutesTest, areThereBeforeTheNoteAndGoneBeforeItGoes)
{
    bool isNoted = true;
    const ImportRedirection<IMPORT(CreateIpForwardEntry2)> create([&](const MIB_IPFORWARD_ROW2 *row) {
        isNoted = !m_notes.routes().empty();
        return create.real(row);
    });
    m_routes.add(resolver);
    EXPECT_FALSE(isNoted) << "a note of a route that may be somebody else's";
    const ImportRedirection<IMPORT(DeleteIpForwardEntry2)> erase([&](const MIB_IPFORWARD_ROW2 *row) {
        isNoted = !m_notes.routes().empty();
        return erase.real(row);
    });
    m_routes.removeAll();
    EXPECT_TRUE(isNoted) << "a route without a note";
}

TEST_F(BypassRoutesTest, ofSomebodyElseAreNotNoted)
{
    for (const DWORD error : {DWORD{ERROR_OBJECT_ALREADY_EXISTS}, DWORD{ERROR_ACCESS_DENIED}}) {
        test::FakeIpHelper ipHelper;
        ipHelper.fail("CreateIpForwardEntry2", error);
        m_routes.add(resolver);
        EXPECT_THAT(m_notes.routes(), IsEmpty()) << error;
        m_routes.removeAll();
        EXPECT_EQ(ipHelper.calls.filter("Delete"), QStringList());
    }
    EXPECT_EQ(m_log.lines(), QStringList{"WARNING Failed to add bypass route: \"8.8.8.8\" error: 5"});
}

TEST_F(BypassRoutesTest, thatMayHaveStayedAreStillNoted)
{
    m_routes.add(resolver);
    m_routes.add(onLink);
    m_ipHelper.fail("DeleteIpForwardEntry2", ERROR_ACCESS_DENIED, "8.8.8.8");
    m_ipHelper.fail("DeleteIpForwardEntry2", ERROR_NOT_FOUND, "1.1.1.1"); // gone already
    m_routes.removeAll();
    EXPECT_THAT(m_notes.routes(), UnorderedElementsAre(resolver));
    EXPECT_EQ(m_log.linesWith("WARNING"),
              (QStringList{"WARNING Failed to delete bypass route: \"8.8.8.8\" error: 5",
                           "WARNING Failed to delete bypass route: \"1.1.1.1\" error: 1168"}));
}

TEST_F(BypassRoutesTest, ofAnEarlierRunAreRemoved)
{
    m_routes.add(resolver);
    m_routes.add(onLink);
    m_ipHelper.calls.clear();
    m_log.clear();
    removeLeftoverBypassRoutes(BypassRouteNotes(m_key.path));
    EXPECT_THAT(m_ipHelper.calls,
                UnorderedElementsAre("DeleteIpForwardEntry2 " + resolverText, "DeleteIpForwardEntry2 " + onLinkText));
    EXPECT_THAT(m_log.lines(),
                UnorderedElementsAre("INFO Removed bypass route of an earlier run: \"8.8.8.8\" via \"192.0.2.1\"",
                                     "INFO Removed bypass route of an earlier run: \"1.1.1.1\" via \"0.0.0.0\""));
    EXPECT_THAT(m_notes.routes(), IsEmpty());
    removeLeftoverBypassRoutes(m_notes);
    EXPECT_EQ(m_ipHelper.calls.size(), 2) << "once";
}

TEST_F(BypassRoutesTest, ofAnEarlierRunThatAreGoneAreNotMissed)
{
    for (const DWORD error : {DWORD{ERROR_NOT_FOUND}, DWORD{ERROR_FILE_NOT_FOUND}}) {
        m_notes.add(resolver);
        test::FakeIpHelper ipHelper;
        ipHelper.fail("DeleteIpForwardEntry2", error);
        removeLeftoverBypassRoutes(m_notes);
        EXPECT_THAT(m_notes.routes(), IsEmpty()) << error;
    }
    EXPECT_EQ(m_log.lines(), QStringList());
}

TEST_F(BypassRoutesTest, ofAnEarlierRunThatCannotBeRemovedAreTriedAgainByTheNext)
{
    m_notes.add(resolver);
    m_ipHelper.fail("DeleteIpForwardEntry2", ERROR_ACCESS_DENIED);
    removeLeftoverBypassRoutes(m_notes);
    EXPECT_EQ(m_log.lines(),
              QStringList{"WARNING Failed to delete bypass route of an earlier run: \"8.8.8.8\" error: 5"});
    EXPECT_THAT(m_notes.routes(), UnorderedElementsAre(resolver));
}

} // namespace
} // namespace ruvo
