#include "tavrin/platform/key_value_store.h"
#include "tavrin/platform/sqlite_key_value_store.h"

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace tavrin::platform {
namespace {

using testing::LogCapture;
using testing::TempDir;

TEST(SqliteKeyValueStore, KeepsEachValueWithItsType) {
    TempDir dir;
    const auto file = dir / "store" / "tavrin.sqlite";
    {
        SqliteKeyValueStore store(file);
        ASSERT_TRUE(store.isPersistent());
        EXPECT_TRUE(store.setString("s", "42"));
        EXPECT_TRUE(store.setInteger("i", 42));
        EXPECT_TRUE(store.setData("d", toBytes("42")));
    }
    SqliteKeyValueStore store(file);
    EXPECT_EQ(store.string("s"), "42");
    EXPECT_EQ(store.integer("i"), 42);
    EXPECT_EQ(store.data("d"), toBytes("42"));
}

}  // namespace
}  // namespace tavrin::platform
