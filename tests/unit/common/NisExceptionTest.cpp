#include "common/NisException.h"

#include <gtest/gtest.h>

#include <type_traits>

using namespace nis;

namespace {

template <typename Caught, typename Thrown> bool catches() {
    try {
        throw Thrown("text", "arg", "File.cpp", 7);
    } catch (Caught&) {
        return true;
    } catch (...) {
        return false;
    }
}

template <typename Type> std::string composed() {
    return Type("text", "F.cpp", 7).msg();
}

TEST(NisExceptionTest, EachLevelPutsItsCodeWordInFront) {
    EXPECT_EQ("text from F.cpp:7", composed<NisException>());
    EXPECT_EQ("Bad Record:text from F.cpp:7", composed<BadRecord>());
    EXPECT_EQ("Bad Argument:text from F.cpp:7", composed<BadArgument>());
    EXPECT_EQ("Zero Pointer:Bad Argument:text from F.cpp:7", composed<ZeroPointer>());
    EXPECT_EQ("Wrong Domain:Bad Argument:text from F.cpp:7", composed<WrongDomain>());
    EXPECT_EQ("Unknown Map:Bad Argument:text from F.cpp:7", composed<UnknownMap>());
    EXPECT_EQ("Unknown Key:Bad Argument:text from F.cpp:7", composed<UnknownKey>());
    EXPECT_EQ("Unknown DC:Bad Argument:text from F.cpp:7", composed<UnknownDC>());
    EXPECT_EQ("File System Error:text from F.cpp:7", composed<FileSystemError>());
    EXPECT_EQ("File Open Failed:File System Error:text from F.cpp:7", composed<FileOpenFailed>());
    EXPECT_EQ("File Write Failed:File System Error:text from F.cpp:7", composed<FileWriteFailed>());
    EXPECT_EQ("File Read Failed:File System Error:text from F.cpp:7", composed<FileReadFailed>());
    EXPECT_EQ("File Close Failed:File System Error:text from F.cpp:7", composed<FileCloseFailed>());
    EXPECT_EQ("Bad Snapshot File:File System Error:text from F.cpp:7", composed<BadSnapshotFile>());
    EXPECT_EQ("DatabaseError:File System Error:text from F.cpp:7", composed<DatabaseError>());
    EXPECT_EQ("Bad Cache File:DatabaseError:File System Error:text from F.cpp:7",
              composed<BadCacheFile>());
    EXPECT_EQ("Server Mismatch:text from F.cpp:7", composed<ServerMismatch>());
    EXPECT_STREQ("Unknown Zone", UNKNOWN_ZONE);
}

TEST(NisExceptionTest, MessageIsComposedOnce) {
    UnknownMap e("no map", "passwd", "F.cpp", 1);
    const std::string& first = e.msg();
    const std::string& second = e.msg();
    EXPECT_EQ(&first, &second);
    EXPECT_EQ(first.data(), second.data());
}

TEST(NisExceptionTest, KeepsWhatItWasGiven) {
    const BadCacheFile e("storing to", "a.map", "Cache.cpp", 12);
    EXPECT_STREQ("storing to", e.what());
    EXPECT_EQ("a.map", e.arg());
    EXPECT_STREQ("Cache.cpp", e.file());
    EXPECT_EQ(12U, e.line());
}

TEST(NisExceptionTest, ArgumentIsEmptyWhenNotGiven) {
    EXPECT_EQ("", UnknownKey("text", "F.cpp", 1).arg());
    EXPECT_EQ("", UnknownKey(std::string("text"), "F.cpp", 1).arg());
}

TEST(NisExceptionTest, ArgumentIsNotPartOfTheComposedText) {
    EXPECT_EQ("text from F.cpp:1", NisException("text", "secret", "F.cpp", 1).msg());
}

TEST(NisExceptionTest, AllConstructorsPassTheirArgumentsOn) {
    const std::string text = "text";
    const std::string arg = "arg";
    EXPECT_EQ("arg", UnknownKey(text, arg, "F.cpp", 1).arg());
    EXPECT_EQ("arg", UnknownKey(text, "arg", "F.cpp", 1).arg());
    EXPECT_EQ("arg", UnknownKey("text", "arg", "F.cpp", 1).arg());
    EXPECT_STREQ("text", UnknownKey("text", arg, "F.cpp", 1).what());
}

TEST(NisExceptionTest, NullPointersContributeNothing) {
    EXPECT_EQ("text from ", NisException("text", nullptr, 7).msg());
    EXPECT_EQ("Unknown Key:Bad Argument:text from ", UnknownKey("text", nullptr, 7).msg());
    const char* const none = nullptr;
    EXPECT_STREQ("", NisException(none, "F.cpp", 7).what());
    EXPECT_EQ("", NisException("text", none, "F.cpp", 7).arg());
    EXPECT_EQ("", NisExMsgConcat(nullptr, ':', "rest"));
    EXPECT_EQ("prefix:", NisExMsgConcat("prefix", ':', nullptr));
    EXPECT_EQ("prefix:rest", NisExMsgConcat("prefix", ':', "rest"));
}

TEST(NisExceptionTest, BadArgumentCatchesItsKinds) {
    EXPECT_TRUE((catches<BadArgument, UnknownMap>()));
    EXPECT_TRUE((catches<BadArgument, UnknownKey>()));
    EXPECT_TRUE((catches<BadArgument, WrongDomain>()));
    EXPECT_TRUE((catches<BadArgument, ZeroPointer>()));
    EXPECT_TRUE((catches<BadArgument, UnknownDC>()));
    EXPECT_FALSE((catches<BadArgument, BadRecord>()));
    EXPECT_FALSE((catches<UnknownKey, UnknownMap>()));
}

TEST(NisExceptionTest, FileSystemErrorCatchesItsKinds) {
    EXPECT_TRUE((catches<FileSystemError, BadCacheFile>()));
    EXPECT_TRUE((catches<DatabaseError, BadCacheFile>()));
    EXPECT_TRUE((catches<FileSystemError, BadSnapshotFile>()));
    EXPECT_TRUE((catches<FileSystemError, FileCloseFailed>()));
    EXPECT_FALSE((catches<DatabaseError, BadSnapshotFile>()));
    EXPECT_FALSE((catches<FileSystemError, ServerMismatch>()));
    EXPECT_TRUE((catches<std::exception, ServerMismatch>()));
}

TEST(NisExceptionTest, OutermostComposesEvenWhenCaughtAsRoot) {
    try {
        NIS_THROW(BadCacheFile, "storing to", "a.map");
    } catch (NisException& e) {
        EXPECT_EQ(0U, e.msg().find("Bad Cache File:DatabaseError:File System Error:storing to "
                                   "from NisExceptionTest.cpp:"));
        EXPECT_EQ("a.map", e.arg());
    }
}

static_assert(std::is_base_of_v<std::exception, NisException>);
static_assert(!std::is_same_v<UnknownMap, UnknownKey>);

} // namespace
