#include "daemon/log_path.h"

#include <gtest/gtest.h>

namespace ruvo {
namespace {

TEST(NamesADevice, isSoForEachPrefixWithEitherSlash)
{
    for (const char *path :
         {R"(\\.\pipe\ruvod-1)", R"(\\?\pipe\ruvod-1)", R"(\??\pipe\ruvod-1)", "//./pipe/ruvod-1", "//?/C:/ruvod.log",
          "/?"
          "?/C:/ruvod.log",
          R"(/\./pipe/x)", R"(\/?\C:\x)", R"(\\.\)"}) {
        EXPECT_TRUE(namesADevice(path)) << path;
    }
}

TEST(NamesADevice, isNotSoForFilesAndShares)
{
    for (const char *path : {"", R"(\)", R"(\\)", R"(\\.)", R"(\\?)", R"(\??)", R"(C:\ruvod.log)", "C:/ruvod.log",
                             R"(\\server\share\ruvod.log)", "//server/share/ruvod.log", "/home/ruvod.log",
                             R"(\ruvod.log)", "ruvod.log", R"(.\x)", R"(C:\\.\x)", R"(\\..\x)", R"(\?\x)"}) {
        EXPECT_FALSE(namesADevice(path)) << path;
    }
}

} // namespace
} // namespace ruvo
