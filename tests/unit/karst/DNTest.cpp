#include <karst/DN.h>

#include <gtest/gtest.h>

#include <string>

namespace {

using tessa::DN;
using tessa::LDAPBinding;

TEST(DNTest, NamesAreRecognised) {
    for (const char* name :
         {"CN=a,DC=b", "DC=com", "cn=zoneA,CN=Zones,DC=example,DC=com", "CN=a b c,DC=x",
          "1.3.6.1.4.1=a,DC=b", "CN=a\\, b,DC=x", "CN=a\\2C b,DC=x", "CN=a\\0ADEL:1-2,DC=x",
          "CN = a , DC = b", "CN=a+SN=b,DC=x", "CN=#0403666f6f,DC=x", "CN=a=b,DC=x", "CN=,DC=x",
          "CN=\xC3\xBC,DC=x", "CN=tail\\ ,DC=x", "CN=\\#x,DC=x"}) {
        EXPECT_TRUE(DN::isDN(name)) << name;
    }
}

TEST(DNTest, OtherTextIsNoName) {
    for (const char* text : {"",
                             " ",
                             "a",
                             "CN",
                             "=a",
                             "CN=a,",
                             ",CN=a",
                             "CN=a,,DC=b",
                             "CN=a,b",
                             "CN=a+",
                             "CN=a+,DC=b",
                             "C N=a",
                             "-x=a",
                             "1.=a",
                             ".1=a",
                             "1..2=a",
                             "CN=a\\",
                             "CN=a\\xz",
                             "CN=a\\2",
                             "CN=\"a\"",
                             "CN=a;DC=b",
                             "CN=a<b",
                             "CN=a>b",
                             "CN=#,DC=x",
                             "CN=#1,DC=x",
                             "CN=#zz",
                             "<GUID=01020304-0506-0708-090a-0b0c0d0e0f10>",
                             "(objectClass=*)"}) {
        EXPECT_FALSE(DN::isDN(text)) << text;
    }
    EXPECT_FALSE(DN::isDN(std::string("CN=a\0b", 6)));
}

TEST(DNTest, DomainIsMadeOfTheDomainComponents) {
    EXPECT_EQ("example.com", DN::domainFromDN("CN=x,DC=Example,DC=com"));
    EXPECT_EQ("example.com", DN::domainFromDN("cn=zoneA,cn=Zones,dc=EXAMPLE,dc=COM"));
    EXPECT_EQ("com", DN::domainFromDN("DC=com"));
    EXPECT_EQ("", DN::domainFromDN("CN=x,O=org"));
    EXPECT_EQ("example.com", DN::domainFromDN("CN=DC\\=no\\,DC\\=no, DC = example , DC = com"));
    EXPECT_EQ("", DN::domainFromDN("no name, DC=com"));
    EXPECT_EQ("", DN::domainFromDN(""));
}

TEST(DNTest, ParentIsTheRestAfterTheFirstComponent) {
    EXPECT_EQ("CN=Zones,DC=com", DN::parent("CN=a,CN=Zones,DC=com"));
    EXPECT_EQ("CN=Zones,DC=com", DN::parent("CN=a , CN=Zones,DC=com"));
    EXPECT_EQ("DC=com", DN::parent("CN=a\\,b,DC=com"));
    EXPECT_EQ("DC=com", DN::parent("CN=a+SN=b,DC=com"));
    EXPECT_EQ("", DN::parent("DC=com"));
    EXPECT_EQ("", DN::parent("nothing"));
}

TEST(DNTest, FirstValueHasNoEscapes) {
    EXPECT_EQ("zoneA", DN::firstValue("CN=zoneA,CN=Zones,DC=com"));
    EXPECT_EQ("a, b", DN::firstValue("CN=a\\, b,DC=com"));
    EXPECT_EQ("a\nDEL:x", DN::firstValue("CN=a\\0ADEL:x,CN=Deleted Objects,DC=com"));
    EXPECT_EQ(" a ", DN::firstValue("CN=\\ a\\ ,DC=com"));
    EXPECT_EQ("a", DN::firstValue("CN= a ,DC=com"));
    EXPECT_EQ("\xC3\xBC", DN::firstValue("CN=\\C3\\bc"));
    EXPECT_EQ("", DN::firstValue("nothing"));
}

TEST(DNTest, NamesOfOneObjectHaveOneNormalForm) {
    const std::string normal = DN::normalize("CN=Zone A,DC=Example,DC=com");
    EXPECT_EQ("cn=zone a,dc=example,dc=com", normal);
    EXPECT_EQ(normal, DN::normalize("cn=ZONE A, dc=example , DC=COM"));
    EXPECT_EQ(normal, DN::normalize(" CN = Zone\\20A,DC=Example,DC=com "));
    EXPECT_EQ(DN::normalize("CN=a\\,b,DC=x"), DN::normalize("CN=A\\2cB,DC=X"));
    EXPECT_EQ(DN::normalize("CN=a\\0ADEL:1"), DN::normalize("CN=a\nDEL:1"));
    EXPECT_EQ(DN::normalize("CN=a\\=b"), DN::normalize("CN=a=b"));
    EXPECT_EQ(DN::normalize("A=1+B=2,DC=x"), DN::normalize("b=2+a=1,DC=x"));
    EXPECT_EQ(normal, DN::normalize(normal));
}

TEST(DNTest, NamesOfDifferentObjectsKeepDifferentForms) {
    EXPECT_NE(DN::normalize("CN=a\\,b,DC=x"), DN::normalize("CN=a,CN=b,DC=x"));
    EXPECT_NE(DN::normalize("CN=a\\ ,DC=x"), DN::normalize("CN=a,DC=x"));
    EXPECT_NE(DN::normalize("CN=\\#ab,DC=x"), DN::normalize("CN=#ab,DC=x"));
    EXPECT_NE(DN::normalize("A=1+B=2"), DN::normalize("A=1,B=2"));
}

TEST(DNTest, TextThatIsNoNameIsOnlyTrimmedAndLowered) {
    EXPECT_EQ("no name, dc", DN::normalize(" No Name, DC "));
}

TEST(DNTest, EscapedValuesComeBackUnchanged) {
    for (const std::string& value :
         {std::string("plain"), std::string("a,b+c\"d\\e<f>g;h=i"), std::string(" lead"),
          std::string("trail "), std::string(" "), std::string("#x"), std::string("a\nb\x7F"),
          std::string("nul\0byte", 8), std::string("\xC3\xBC"), std::string("")}) {
        const std::string name = LDAPBinding::createChild("DC=x", value);
        EXPECT_TRUE(DN::isDN(name)) << name;
        EXPECT_EQ(value, DN::firstValue(name)) << name;
        EXPECT_EQ("DC=x", DN::parent(name)) << name;
    }
}

TEST(DNTest, ChildIsPutInFront) {
    EXPECT_EQ("CN=nismaps,CN=zoneA,DC=com", LDAPBinding::createChild("CN=zoneA,DC=com", "nismaps"));
    EXPECT_EQ("CN=a\\,b,DC=com", LDAPBinding::createChild("DC=com", "a,b"));
    EXPECT_EQ("CN=a", LDAPBinding::createChild("", "a"));
}

} // namespace
