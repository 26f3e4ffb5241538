#include "karst/DBStore.h"

#include "support/Damage.h"
#include "support/TempFolder.h"

#include <karst/Exceptions.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <map>
#include <random>
#include <thread>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using tessa::DB_CREATE;
using tessa::DB_OPEN;
using tessa::DBException;
using tessa::DBStore;
using tessa::DBSync;

namespace {

using Model = std::map<std::string, std::string>;
using std::string_literals::operator""s;

class DBStoreTest : public testing::Test {
protected:
    static constexpr const char* NAME = "s.map";

    static void put(DBStore& store, const std::string& key, const std::string& value) {
        store.store(key, value, true);
    }
    static Model contents(const DBStore& store) {
        Model found;
        const auto iterator = store.getIterator();
        while (iterator->hasNext()) {
            const tessa::DBItem value = iterator->next();
            EXPECT_TRUE(found.emplace(iterator->key(), value.toString()).second);
        }
        return found;
    }
    static Model walked(const DBStore& store) {
        Model found;
        for (tessa::DBItem key = store.getFirst(); key.present();
             key = store.getNext(key.toString())) {
            found[key.toString()] = store.fetch(key.toString()).toString();
        }
        return found;
    }
    /// Opens, checks and reads the file. @return whether it was accepted
    static bool load(const std::string& name, Model& found) {
        try {
            DBStore store;
            store.open(name, DB_OPEN, 0600);
            store.checkStructure();
            found = contents(store);
            return true;
        } catch (const DBException& e) {
            EXPECT_NE(std::string(e.what()).find(name), std::string::npos) << e.what();
            return false;
        }
    }
    static std::string refusal(const std::string& name) {
        try {
            DBStore().open(name, DB_OPEN, 0600);
        } catch (const DBException& e) {
            return e.what();
        }
        return "";
    }
    static void makeStore(const std::string& name, const Model& content) {
        DBStore store;
        store.open(name, DB_CREATE, 0600);
        const DBStore::Batch batch(store, DBSync::TO_KERNEL);
        for (const auto& [key, value] : content) {
            put(store, key, value);
        }
    }
    static Model sample(unsigned records) {
        std::mt19937 random(records);
        Model content;
        while (content.size() < records) {
            std::string key(1 + random() % 40, '\0');
            for (char& c : key) {
                c = static_cast<char>(random() % 256);
            }
            content[key] = std::string(random() % 300, static_cast<char>('a' + random() % 26));
        }
        return content;
    }

    test::TempFolder m_folder;
};

TEST_F(DBStoreTest, CreatesWithThePermissionsGivenWhateverTheMask) {
    const mode_t mask = ::umask(0177);
    DBStore store;
    store.open(NAME, DB_CREATE, 0640);
    ::umask(mask);
    struct stat status {};
    ASSERT_EQ(0, ::stat(NAME, &status));
    EXPECT_EQ(0640U, status.st_mode & 07777);
}

TEST_F(DBStoreTest, CreateRefusesWhatIsThere) {
    test::writeFile(NAME, "precious");
    DBStore store;
    EXPECT_THROW(store.open(NAME, DB_CREATE, 0600), DBException);
    EXPECT_EQ("precious", test::readFile(NAME));
    std::filesystem::create_symlink("nowhere", "link");
    EXPECT_THROW(store.open("link", DB_CREATE, 0600), DBException);
    EXPECT_FALSE(store.isOpen());
}

TEST_F(DBStoreTest, OpenRefusesWhatIsNoStore) {
    EXPECT_NE(std::string::npos, refusal("missing").find("No such file"));
    test::writeFile("empty", "");
    EXPECT_NE(std::string::npos, refusal("empty").find("the file is empty"));
    test::writeFile("text", std::string(5000, 'x'));
    EXPECT_NE(std::string::npos, refusal("text").find("not a database"));
    std::filesystem::create_directory("folder");
    EXPECT_NE(std::string::npos, refusal("folder").find("not a regular file"));
    makeStore(NAME, {{"a", "b"}});
    std::filesystem::create_symlink(NAME, "link");
    EXPECT_NE(std::string::npos, refusal("link").find("not a regular file"));
    EXPECT_NE(std::string::npos, refusal("nofolder/x").find("No such file"));
}

TEST_F(DBStoreTest, OpenRefusesAnotherProgramsFileAndAnotherFormat) {
    makeStore(NAME, {{"a", "b"}});
    const std::string original = test::readFile(NAME);
    std::string bytes = original;
    bytes.replace(68, 4, "\0\0\0\0"s); // application id
    test::writeFile("foreign", bytes);
    EXPECT_NE(std::string::npos, refusal("foreign").find("another program"));
    bytes = original;
    bytes[63] = 2; // format
    test::writeFile("newer", bytes);
    EXPECT_NE(std::string::npos, refusal("newer").find("store format 2 is not known"));
    EXPECT_EQ("", refusal(NAME));
}

TEST_F(DBStoreTest, StoreWithoutRecordsOpens) {
    makeStore(NAME, {});
    DBStore store;
    store.open(NAME, DB_OPEN, 0600);
    store.checkStructure();
    EXPECT_FALSE(store.getIterator()->hasNext());
    EXPECT_FALSE(store.getIterator()->next().present());
    EXPECT_FALSE(store.getFirst().present());
    EXPECT_FALSE(store.getNext("a"s).present());
    EXPECT_FALSE(store.seek(""s, true).found);
}

TEST_F(DBStoreTest, NameThatLooksLikeAUriIsAFileName) {
    const std::string name = "file:x?mode=memory:dc.map";
    makeStore(name, {{"a", "b"}});
    EXPECT_TRUE(std::filesystem::exists(name));
    Model found;
    EXPECT_TRUE(load(name, found));
    EXPECT_EQ((Model{{"a", "b"}}), found);
}

TEST_F(DBStoreTest, FileBelongsToOneUserAtATime) {
    DBStore store;
    store.open(NAME, DB_CREATE, 0600);
    EXPECT_NE(std::string::npos, refusal(NAME).find("locked"));
    EXPECT_THROW(store.open(NAME, DB_OPEN, 0600), DBException);
    put(store, "a", "b"); // not disturbed
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(refusal(NAME).find("locked") != std::string::npos ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
}

TEST_F(DBStoreTest, KeysAndValuesOfAllSizesAndBytes) {
    Model model;
    {
        DBStore store;
        store.open(NAME, DB_CREATE, 0600);
        const DBStore::Batch batch(store);
        for (std::size_t size = 1; size <= 2000; size += size < 20 ? 1 : 97) {
            std::string key(size, '\0');
            key.back() = static_cast<char>(size);
            model[key] = std::string(size * 100, '\0') + "end";
            put(store, key, model[key]);
        }
        model["\0"s] = "";
        model["a"] = "";
        put(store, "\0"s, "");
        put(store, "a", "");
        put(store, "", "empty key");
        model[""] = "empty key";
    }
    Model found;
    ASSERT_TRUE(load(NAME, found));
    EXPECT_EQ(model, found);
}

TEST_F(DBStoreTest, EmptyValueIsPresentAndAbsentKeyIsNot) {
    DBStore store;
    store.open(NAME, DB_CREATE, 0600);
    put(store, "a", "");
    EXPECT_TRUE(store.fetch("a"s).present());
    EXPECT_EQ(0U, store.fetch("a"s).length());
    EXPECT_FALSE(store.fetch("b"s).present());
    EXPECT_EQ(nullptr, store.fetch("b"s).data());
    store.remove("b"s);
    store.remove("a"s);
    EXPECT_FALSE(store.fetch("a"s).present());
    store.checkStructure();
}

TEST_F(DBStoreTest, StoreWithoutReplacementRefusesAnExistingKey) {
    DBStore store;
    store.open(NAME, DB_CREATE, 0600);
    store.store("a"s, "1"s, false);
    EXPECT_THROW(store.store("a"s, "2"s, false), DBException);
    EXPECT_EQ("1", store.fetch("a"s).toString());
    {
        DBStore::Batch batch(store);
        store.store("b"s, "1"s, false);
        EXPECT_THROW(store.store("a"s, "2"s, false), DBException);
        store.store("c"s, "1"s, false); // a refused write does not end the batch
        batch.commit();
    }
    EXPECT_EQ((Model{{"a", "1"}, {"b", "1"}, {"c", "1"}}), contents(store));
    EXPECT_EQ(0U, store.rollbackCount());
}

TEST_F(DBStoreTest, BehavesAsAnOrderedMap) {
    DBStore store;
    store.open(NAME, DB_CREATE, 0600);
    Model model;
    std::mt19937 random(1);
    const auto anyKey = [&] {
        std::string key(random() % 4, '\0');
        for (char& c : key) {
            c = "\0\1\xff"[random() % 3];
        }
        return key;
    };
    for (int step = 0; step < 3000; ++step) {
        const std::string key = anyKey();
        if (random() % 3 == 0) {
            model.erase(key);
            store.remove(key);
        } else {
            model[key] = std::to_string(step);
            put(store, key, model[key]);
        }
        const std::string probe = anyKey();
        const auto after = model.upper_bound(probe);
        const DBStore::Record next = store.seek(probe, false);
        ASSERT_EQ(after != model.end(), next.found);
        ASSERT_EQ(after != model.end(), store.getNext(probe).present());
        if (next.found) {
            ASSERT_EQ(after->first, next.key);
            ASSERT_EQ(after->second, next.value);
            ASSERT_EQ(after->first, store.getNext(probe).toString());
        }
        const auto from = model.lower_bound(probe);
        const DBStore::Record here = store.seek(probe, true);
        ASSERT_EQ(from != model.end(), here.found);
        ASSERT_TRUE(!here.found || here.key == from->first);
    }
    EXPECT_EQ(model, contents(store));
    EXPECT_EQ(model, walked(store));
    store.checkStructure();
}

TEST_F(DBStoreTest, WalkSurvivesRemovalOfItsCurrentRecord) {
    DBStore store;
    store.open(NAME, DB_CREATE, 0600);
    for (char c = 'a'; c <= 'e'; ++c) {
        put(store, std::string(1, c), "v");
    }
    store.remove("c"s);
    EXPECT_EQ("d", store.getNext("c"s).toString());
    store.remove("e"s);
    EXPECT_FALSE(store.getNext("d"s).present());
}

TEST_F(DBStoreTest, IteratorReadsMoreThanOneStretch) {
    const Model model = sample(3000);
    makeStore(NAME, model);
    Model found;
    ASSERT_TRUE(load(NAME, found));
    EXPECT_EQ(model, found);
}

TEST_F(DBStoreTest, BatchesJoinAndCommitOnDestruction) {
    DBStore store;
    store.open(NAME, DB_CREATE, 0600);
    int hooks = 0;
    store.beforeCommit([&] { put(store, "hook", std::to_string(++hooks)); });
    {
        const DBStore::Batch outer(store);
        put(store, "a", "1");
        {
            DBStore::Batch inner(store);
            put(store, "b", "2");
            inner.commit();
            inner.commit();
        }
        EXPECT_EQ(0, hooks);
        put(store, "c", "3");
    }
    EXPECT_EQ(1, hooks);
    EXPECT_EQ((Model{{"a", "1"}, {"b", "2"}, {"c", "3"}, {"hook", "1"}}), contents(store));
    store.close();
    Model found;
    ASSERT_TRUE(load(NAME, found));
    EXPECT_EQ(4U, found.size());
}

TEST_F(DBStoreTest, BatchIsGivenUpWhenItsHookFails) {
    DBStore store;
    store.open(NAME, DB_CREATE, 0600);
    put(store, "a", "1");
    store.beforeCommit([] { throw DBException("no"); });
    {
        DBStore::Batch batch(store);
        put(store, "a", "2");
        EXPECT_EQ("2", store.fetch("a"s).toString());
        EXPECT_THROW(batch.commit(), DBException);
    }
    EXPECT_EQ("1", store.fetch("a"s).toString());
    EXPECT_EQ(1U, store.rollbackCount());
    put(store, "b", "2"); // outside a batch there is no hook
    store.checkStructure();
}

TEST_F(DBStoreTest, OtherThreadsReadDuringABatch) {
    DBStore store;
    store.open(NAME, DB_CREATE, 0600);
    put(store, "fixed", "value");
    std::atomic<bool> stop{false};
    std::atomic<long> reads{0};
    std::atomic<bool> wrong{false};
    std::thread reader([&] {
        while (!stop) {
            wrong =
                wrong || store.fetch("fixed"s).toString() != "value" || !store.getFirst().present();
            ++reads;
        }
    });
    {
        DBStore::Batch batch(store);
        for (int i = 0; i < 2000 || reads < 100; ++i) {
            put(store, "k" + std::to_string(i % 5000), "v");
        }
        batch.commit();
    }
    stop = true;
    reader.join();
    EXPECT_FALSE(wrong);
    EXPECT_GE(reads, 100);
}

TEST_F(DBStoreTest, CloseAllCommitsAndLaterOperationsFail) {
    DBStore store;
    DBStore other;
    store.open(NAME, DB_CREATE, 0600);
    other.open("other.map", DB_CREATE, 0600);
    put(other, "x", "y");
    {
        DBStore::Batch batch(store);
        put(store, "a", "1");
        tessa::DBStoreInterface::closeAll();
        EXPECT_FALSE(store.isOpen());
        EXPECT_FALSE(other.isOpen());
        EXPECT_THROW(batch.commit(), DBException);
    }
    EXPECT_THROW(put(store, "a", "2"), DBException);
    EXPECT_THROW(store.fetch("a"s), DBException);
    EXPECT_THROW(store.remove("a"s), DBException);
    EXPECT_THROW(store.getFirst(), DBException);
    EXPECT_THROW(store.getNext("a"s), DBException);
    EXPECT_THROW(store.seek("a"s, true), DBException);
    EXPECT_THROW(store.checkStructure(), DBException);
    EXPECT_THROW(store.getIterator()->hasNext(), DBException);
    EXPECT_THROW(DBStore::Batch{store}, DBException);
    tessa::DBStoreInterface::closeAll();
    Model found;
    ASSERT_TRUE(load(NAME, found));
    EXPECT_EQ((Model{{"a", "1"}}), found);
    EXPECT_FALSE(std::filesystem::exists("s.map-journal"));
    store.open(NAME, DB_OPEN, 0600); // a closed object may be used again
    EXPECT_EQ("1", store.fetch("a"s).toString());
}

TEST_F(DBStoreTest, BatchOfAnEarlierOpeningDoesNotEndALaterOnes) {
    DBStore store;
    store.open(NAME, DB_CREATE, 0600);
    auto early = std::make_unique<DBStore::Batch>(store);
    store.close();
    store.open(NAME, DB_OPEN, 0600);
    DBStore::Batch late(store);
    put(store, "a", "1");
    early.reset();
    put(store, "b", "1");
    late.commit();
    EXPECT_EQ(2U, contents(store).size());
}

TEST_F(DBStoreTest, DestroyRemovesTheFileWhereverTheProcessIs) {
    DBStore store;
    store.open(NAME, DB_CREATE, 0600);
    put(store, "a", "1");
    std::filesystem::create_directory("elsewhere");
    std::filesystem::current_path("elsewhere");
    test::writeFile(NAME, "another file of that name");
    store.destroy();
    EXPECT_TRUE(std::filesystem::exists(NAME));
    EXPECT_FALSE(std::filesystem::exists("../s.map"));
    EXPECT_FALSE(std::filesystem::exists("../s.map-journal"));
    EXPECT_FALSE(store.isOpen());
    store.destroy(); // gone already
    EXPECT_THROW(DBStore().destroy(), DBException);
}

TEST_F(DBStoreTest, CreateIsNotMisledByAStaleJournal) {
    {
        DBStore store;
        store.open(NAME, DB_CREATE, 0600);
        put(store, "a", "1");
        DBStore::Batch batch(store);
        for (int i = 0; i < 20000; ++i) { // enough to be written before the end
            put(store, "old" + std::to_string(i), std::string(200, 'x'));
        }
        ASSERT_GT(std::filesystem::file_size("s.map-journal"), 0U);
        std::filesystem::copy_file("s.map-journal", "stale.map-journal");
    }
    makeStore("stale.map", {{"new", "content"}});
    Model found;
    ASSERT_TRUE(load("stale.map", found));
    EXPECT_EQ((Model{{"new", "content"}}), found);
}

TEST_F(DBStoreTest, DamageIsRefusedOrHarmless) {
    const Model model = sample(400);
    makeStore(NAME, model);
    const std::string original = test::readFile(NAME);
    int refused = 0;
    for (unsigned number = 0; number < 400; ++number) {
        test::writeFile("damaged.map", test::damaged(original, number));
        Model found;
        if (load("damaged.map", found)) {
            ASSERT_EQ(model, found) << "damage " << number;
        } else {
            ++refused;
        }
    }
    EXPECT_GT(refused, 200);
}

TEST_F(DBStoreTest, DamageAfterTheCheckIsSeenByTheReader) {
    const Model model = sample(400);
    makeStore(NAME, model);
    const std::string original = test::readFile(NAME);
    int raised = 0;
    for (unsigned number = 0; number < 200; ++number) {
        test::writeFile("damaged.map", test::damaged(original, 8 * number)); // one bit
        try {
            DBStore store;
            store.open("damaged.map", DB_OPEN, 0600); // and no check
            for (const auto& [key, value] : model) {
                const tessa::DBItem item = store.fetch(key);
                ASSERT_TRUE(!item.present() || item.toString() == value) << "damage " << number;
            }
            for (const auto& [key, value] : walked(store)) {
                ASSERT_TRUE(model.count(key) == 0 || model.at(key) == value);
            }
        } catch (const DBException&) {
            ++raised;
        }
    }
    EXPECT_GT(raised, 50);
}

TEST_F(DBStoreTest, PagesOfSeveralMomentsAreNotTakenForOneState) {
    // What a loss of power may leave of writes that were not forced to disk.
    constexpr std::size_t PAGE = 4096;
    const Model before = sample(300);
    makeStore(NAME, before);
    const std::string first = test::readFile(NAME);
    Model after = before;
    {
        DBStore store;
        store.open(NAME, DB_OPEN, 0600);
        for (const auto& [key, value] : before) {
            if (key.size() % 3 == 0) {
                after[key] = "changed" + value;
                put(store, key, after[key]);
            } else if (key.size() % 7 == 0) {
                after.erase(key);
                store.remove(key);
            }
        }
    }
    const std::string second = test::readFile(NAME);
    std::mt19937 random(5);
    int refused = 0;
    for (int round = 0; round < 200; ++round) {
        std::string mixed = second;
        for (std::size_t at = 0; at + PAGE <= std::min(first.size(), second.size()); at += PAGE) {
            if (random() % 4 == 0) {
                mixed.replace(at, PAGE, first, at, PAGE);
            }
        }
        test::writeFile("mixed.map", mixed);
        Model found;
        if (load("mixed.map", found)) {
            ASSERT_TRUE(found == before || found == after);
        } else {
            ++refused;
        }
    }
    EXPECT_GT(refused, 100);
}

/// Runs batches until killed; after each tells its number through the pipe.
[[noreturn]] void runBatches(const char* name, int out) {
    DBStore store;
    store.open(name, DB_OPEN, 0600);
    int number = std::stoi(store.fetch("number"s).toString());
    while (true) {
        ++number;
        const std::string text = std::to_string(number);
        if (number % 2 == 0) {
            DBStore::Batch batch(store, number % 4 == 0 ? DBSync::TO_DISK : DBSync::TO_KERNEL);
            for (int i = 0; i < 200; ++i) { // enough to fill more than the cache with some values
                store.store("k" + std::to_string(i), text + std::string(20000, 'x'), true);
            }
            store.store("number"s, text, true);
            batch.commit();
        } else {
            store.store("number"s, text, true);
        }
        if (::write(out, &number, sizeof number) != sizeof number) {
            ::_exit(1);
        }
    }
}

TEST_F(DBStoreTest, KilledProcessLeavesACommittedState) {
    makeStore(NAME, {{"number", "0"}});
    std::mt19937 random(7);
    for (int round = 0; round < 50; ++round) {
        int ends[2];
        ASSERT_EQ(0, ::pipe(ends));
        const pid_t child = ::fork();
        if (child == 0) {
            ::close(ends[0]);
            runBatches(NAME, ends[1]);
        }
        ::close(ends[1]);
        int committed = 0;
        for (unsigned i = 0; i < 1 + random() % 6; ++i) {
            ASSERT_EQ(ssize_t{sizeof committed}, ::read(ends[0], &committed, sizeof committed));
        }
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 20000));
        ASSERT_EQ(0, ::kill(child, SIGKILL));
        int status = 0;
        ASSERT_EQ(child, ::waitpid(child, &status, 0));
        while (::read(ends[0], &committed, sizeof committed) == ssize_t{sizeof committed}) {
        }
        ::close(ends[0]);

        Model found;
        ASSERT_TRUE(load(NAME, found)) << "round " << round;
        const int number = std::stoi(found["number"]);
        EXPECT_TRUE(number == committed || number == committed + 1) << number << " " << committed;
        const std::string batch = std::to_string(number / 2 * 2) + std::string(20000, 'x');
        for (int i = 0; number >= 2 && i < 200; ++i) {
            ASSERT_EQ(batch, found["k" + std::to_string(i)]) << "round " << round;
        }
    }
}

} // namespace
