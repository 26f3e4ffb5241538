#include "ldap/Settings.h"
#include "support/TempFolder.h"

#include <karst/Exceptions.h>

#include <gtest/gtest.h>

#include <map>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace quorad::ldap;
using Keys = std::map<std::string, std::string>;

Settings parse(const Keys& keys) {
    tessa::Properties configuration;
    configuration.set("quorad.directory", "ldap:");
    configuration.set("quorad.zone", "CN=zoneA,CN=Zones,DC=Example,DC=com");
    configuration.set("quorad.hostname", "bollard.example.com");
    for (const auto& [key, value] : keys) {
        configuration.set(key, value);
    }
    return Settings::parse(configuration);
}

/// The message of what parsing throws; empty when it does not.
std::string refusal(const Keys& keys) {
    try {
        parse(keys);
    } catch (const tessa::BadDataException& e) {
        return e.message();
    }
    return "";
}

TEST(LdapSettings, Defaults) {
    const Settings settings = parse({});
    EXPECT_TRUE(settings.servers.empty());
    EXPECT_FALSE(settings.discoverTls);
    EXPECT_EQ(settings.domain, "example.com");
    EXPECT_EQ(settings.authentication, Authentication::GSSAPI);
    EXPECT_EQ(settings.keytab, "/etc/krb5.keytab");
    EXPECT_EQ(settings.principal, "BOLLARD$@EXAMPLE.COM");
    EXPECT_EQ(settings.pageSize, 1000U);
    EXPECT_EQ(settings.compareInterval.count(), 600);
}

TEST(LdapSettings, WhatADirectoryIs) {
    for (const char* source : {"ldap:", "LDAPS:", "ldap://a", " ldaps://a ldap://b"}) {
        EXPECT_TRUE(Settings::isLdap(source)) << source;
    }
    for (const char* source : {"", "ldif:/x", "ldapx", "/etc/ldap:"}) {
        EXPECT_FALSE(Settings::isLdap(source)) << source;
    }
}

TEST(LdapSettings, ListOfControllersInOrder) {
    const Settings settings =
        parse({{"quorad.directory", "ldap://DC1.example.com, ldaps://dc2.example.com:3636/"}});
    ASSERT_EQ(settings.servers.size(), 2U);
    EXPECT_EQ(settings.servers[0].uri(), "ldap://dc1.example.com:389");
    EXPECT_EQ(settings.servers[1].uri(), "ldaps://dc2.example.com:3636");
    EXPECT_TRUE(settings.servers[1].tls);
}

TEST(LdapSettings, MalformedControllers) {
    for (const char* source :
         {"ldap://", "ldap://a:0", "ldap://a:65536", "ldap://a:x", "ldap://a:", "ldap://a b",
          "ldap://a/dc=x", "ldap://a@b", "ldap: ldap://a", "ldap://a http://b", "ldap://-a"}) {
        EXPECT_NE(refusal({{"quorad.directory", source}}).find("quorad.directory: "),
                  std::string::npos)
            << source;
    }
}

TEST(LdapSettings, Domain) {
    EXPECT_EQ(parse({{"quorad.domain", "AD.Example.ORG."}}).domain, "ad.example.org");
    EXPECT_EQ(parse({{"quorad.zone", ""}}).domain, "example.com"); // of the host
    EXPECT_NE(refusal({{"quorad.zone", ""}, {"quorad.hostname", "bollard"}}).find("quorad.domain"),
              std::string::npos);
    EXPECT_NE(refusal({{"quorad.domain", "a b"}}), "");
}

TEST(LdapSettings, Principal) {
    EXPECT_EQ(parse({{"quorad.hostname", "averyveryverylonghostname"}}).principal,
              "AVERYVERYVERYLO$@EXAMPLE.COM");
    EXPECT_EQ(parse({{"quorad.ldap.principal", "nis/x@OTHER"}}).principal, "nis/x@OTHER");
    EXPECT_EQ(parse({{"quorad.ldap.principal", "nis"}}).principal, "nis@EXAMPLE.COM");
    EXPECT_NE(refusal({{"quorad.ldap.keytab", "keytab"}}), "");
    EXPECT_NE(refusal({{"quorad.ldap.keytab", ""}}), "");
}

TEST(LdapSettings, LimitsStayBelowWhatClientsWait) {
    const Settings settings = parse({{"quorad.ldap.timeout", "3"},
                                     {"quorad.ldap.connect.timeout", "2s"},
                                     {"quorad.ldap.page.size", "50"},
                                     {"quorad.ldap.compare.interval", "0"},
                                     {"quorad.ldap.failback.interval", "1h"}});
    EXPECT_EQ(settings.timeout.count(), 3);
    EXPECT_EQ(settings.connectTimeout.count(), 2);
    EXPECT_EQ(settings.pageSize, 50U);
    EXPECT_EQ(settings.compareInterval.count(), 0);
    EXPECT_EQ(settings.failbackInterval.count(), 3600);
    for (const auto& [key, value] : Keys{{"quorad.ldap.timeout", "0"},
                                         {"quorad.ldap.timeout", "11"},
                                         {"quorad.ldap.connect.timeout", "1h"},
                                         {"quorad.ldap.search.timeout", "86"},
                                         {"quorad.ldap.page.size", "0"},
                                         {"quorad.ldap.page.size", "many"},
                                         {"quorad.ldap.page.size", "-5"},
                                         {"quorad.ldap.failback.interval", "-1"}}) {
        EXPECT_EQ(refusal({{key, value}}).find(key + ": "), 0U) << key << " " << value;
    }
}

class LdapPassword : public testing::Test {
protected:
    void SetUp() override {
        file = (folder.path() / "secret").string();
        keys = {{"quorad.ldap.auth", "simple"},
                {"quorad.ldap.bind.dn", "CN=reader,DC=example,DC=com"},
                {"quorad.ldap.password.file", file},
                {"quorad.ldap.starttls", "yes"}};
        write("s3cret\n");
    }
    void write(const std::string& text, mode_t mode = 0600) const {
        test::writeFile(file, text);
        ASSERT_EQ(::chmod(file.c_str(), mode), 0);
    }

    test::TempFolder folder;
    std::string file;
    Keys keys;
};

TEST_F(LdapPassword, FirstLine) {
    EXPECT_EQ(parse(keys).password(), "s3cret");
    write("two words \r\nsecond line");
    EXPECT_EQ(parse(keys).password(), "two words ");
    write("no line end");
    EXPECT_EQ(parse(keys).password(), "no line end");
}

TEST_F(LdapPassword, UnusableFiles) {
    write("");
    EXPECT_NE(refusal(keys).find("no password"), std::string::npos);
    write("\nsecond\n");
    EXPECT_NE(refusal(keys), "");
    write(std::string(2000, 'x'));
    EXPECT_NE(refusal(keys).find("longer"), std::string::npos);
    ASSERT_EQ(::unlink(file.c_str()), 0);
    EXPECT_NE(refusal(keys).find("cannot be read"), std::string::npos);
    keys["quorad.ldap.password.file"] = folder.path().string();
    EXPECT_NE(refusal(keys).find("not a regular file"), std::string::npos);
}

TEST_F(LdapPassword, OthersMustNotReadIt) {
    for (const mode_t mode : {0640U, 0604U, 0660U, 0644U}) {
        write("s3cret\n", mode);
        const std::string text = refusal(keys);
        EXPECT_NE(text.find("open to others"), std::string::npos) << std::oct << mode;
        EXPECT_EQ(text.find("s3cret"), std::string::npos);
    }
}

TEST_F(LdapPassword, NeverOverAClearConnection) {
    keys["quorad.ldap.starttls"] = "no";
    EXPECT_NE(refusal(keys).find("clear connection"), std::string::npos);
    keys["quorad.directory"] = "ldaps://a ldap://b";
    EXPECT_NE(refusal(keys).find("clear connection"), std::string::npos);
    keys["quorad.directory"] = "ldaps://a ldaps://b";
    EXPECT_EQ(refusal(keys), "");
    keys["quorad.directory"] = "ldaps:";
    EXPECT_EQ(refusal(keys), "");
}

TEST_F(LdapPassword, IncompleteOrUnknownMethods) {
    EXPECT_NE(refusal({{"quorad.ldap.auth", "anonymous"}}).find("quorad.ldap.auth"),
              std::string::npos);
    keys["quorad.ldap.bind.dn"] = "";
    EXPECT_NE(refusal(keys).find("quorad.ldap.bind.dn"), std::string::npos);
    keys["quorad.ldap.bind.dn"] = "CN=x";
    keys["quorad.ldap.password.file"] = "";
    EXPECT_NE(refusal(keys).find("quorad.ldap.password.file"), std::string::npos);
}

} // namespace
