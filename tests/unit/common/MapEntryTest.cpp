#include "common/MapEntry.h"

#include <gtest/gtest.h>

using nis::MapEntry;

TEST(MapEntryTest, NotFoundIsEmpty) {
    EXPECT_TRUE(MapEntry::NOT_FOUND.key.empty());
    EXPECT_TRUE(MapEntry::NOT_FOUND.value.empty());
    EXPECT_EQ(MapEntry{}, MapEntry::NOT_FOUND);
}

TEST(MapEntryTest, ComparesBytes) {
    using std::string_literals::operator""s;
    EXPECT_EQ((MapEntry{"a\0b"s, "v"}), (MapEntry{"a\0b"s, "v"}));
    EXPECT_NE((MapEntry{"a\0b"s, "v"}), (MapEntry{"a\0c"s, "v"}));
    EXPECT_NE((MapEntry{"a", "v"}), (MapEntry{"a", "w"}));
}
