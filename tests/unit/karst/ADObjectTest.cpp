#include <karst/ADObject.h>
#include <karst/Exceptions.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using tessa::ADObject;

TEST(ADObjectTest, AttributesAreFoundWithoutRegardToCase) {
    ADObject object;
    object.set("adminDescription", "value");
    EXPECT_EQ("value", object["ADMINdescription"].asString());
    const std::string text = object["admindescription"];
    EXPECT_EQ("value", text);
    EXPECT_EQ(1U, object["adminDescription"].size());
}

TEST(ADObjectTest, MissingAttributeReadsAsEmptyWithoutValues) {
    const ADObject object;
    EXPECT_EQ("", object["cn"].asString());
    EXPECT_EQ(0U, object["cn"].size());
    EXPECT_TRUE(object["cn"].values().empty());
    EXPECT_FALSE(object.attributeExists("cn", false));
    EXPECT_FALSE(object.attributeExists("cn", true));
    EXPECT_EQ("", object.guid());
}

TEST(ADObjectTest, OfSeveralValuesTheSmallestIsTheValue) {
    ADObject object;
    object.set("description", std::vector<std::string>{"b", "a", "\xFF", "ab"});
    EXPECT_EQ("a", object["description"].asString());
    EXPECT_EQ(4U, object["description"].values().size());
    EXPECT_EQ("b", object["description"].values().front());
    object.set("description", std::vector<std::string>{"\xFF", "z"});
    EXPECT_EQ("z", object["description"].asString()); // bytes are unsigned
}

TEST(ADObjectTest, SettingAgainReplaces) {
    ADObject object;
    object.set("cn", "one");
    object.set("description", "key");
    object.set("CN", "two");
    EXPECT_EQ("two", object["cn"].asString());
    ASSERT_EQ(2U, object.attributes().size());
    EXPECT_EQ("cn", object.attributes()[0].name);
}

TEST(ADObjectTest, SettingNoValuesRemoves) {
    ADObject object;
    object.set("cn", "one");
    object.set("description", "key");
    object.set("cn", std::vector<std::string>());
    EXPECT_FALSE(object.attributeExists("cn", false));
    EXPECT_EQ("key", object["description"].asString());
    object.set("none", std::vector<std::string>());
    EXPECT_EQ(1U, object.attributes().size());
}

TEST(ADObjectTest, EmptyValueExistsButIsEmpty) {
    ADObject object;
    object.set("adminDescription", "");
    EXPECT_TRUE(object.attributeExists("adminDescription", false));
    EXPECT_FALSE(object.attributeExists("adminDescription", true));
    object.set("adminDescription", "x");
    EXPECT_TRUE(object.attributeExists("admindescription", true));
}

TEST(ADObjectTest, NumbersAreRead) {
    ADObject object;
    object.set("highestCommittedUSN", "9223372036854775807");
    EXPECT_EQ(9223372036854775807LL, object["highestcommittedusn"].asInt64().value());
    object.set("highestCommittedUSN", "12x");
    EXPECT_THROW(object["highestcommittedusn"].asInt64(), tessa::BadDataException);
    EXPECT_THROW(object["missing"].asInt64(), tessa::BadDataException);
}

TEST(ADObjectTest, GuidIsTheObjectGuid) {
    ADObject object;
    const std::string bytes("\0\1\2\3\4\5\6\7\10\11\12\13\14\15\16\17", 16);
    object.set("objectGUID", bytes);
    EXPECT_EQ(bytes, object.guid());
}

TEST(ADObjectTest, BinaryValuesKeepTheirZeros) {
    ADObject object;
    const std::string value("a\0b", 3);
    object.set("x", value);
    EXPECT_EQ(value, object["x"].asString());
}

} // namespace
