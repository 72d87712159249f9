// Expansion of the version variables in a step text.
#include "update/driver.hpp"

#include <gtest/gtest.h>

#include "config/product.hpp"

namespace {

TEST(ExpandVersions, FirstOccurrencePerWordAndBlanksKept) {
    rv::pathes.version_old = "1.6.3.20";
    rv::pathes.version = "1.6.4.71";
    EXPECT_EQ(rv::expand_versions("cmd  echo $old_version"), "cmd  echo 1.6.3.20");
    EXPECT_EQ(rv::expand_versions("cmd echo $old_version$old_version"), "cmd echo 1.6.3.20$old_version");
    // A word with the old version keeps its new-version variable.
    EXPECT_EQ(rv::expand_versions("x $old_version-$new_version"), "x 1.6.3.20-$new_version");
    EXPECT_EQ(rv::expand_versions("x v$new_version.txt"), "x v1.6.4.71.txt");
    EXPECT_EQ(rv::expand_versions(" \tcmd ls  "), "cmd ls");
    EXPECT_EQ(rv::expand_versions(""), "");
    rv::pathes.version_old.clear();
    rv::pathes.version.clear();
}

}  // namespace
