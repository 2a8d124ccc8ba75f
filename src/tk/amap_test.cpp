#include <filesystem>
#include <functional>

#include <gtest/gtest.h>

#include "tk/map.h"
#include "tk/reget.h"
#include "tk/testing/capturedoutput.h"
#include "tk/testing/folder.h"
#include "tk/testing/testloop.h"

namespace tk {
namespace {

/// One object: a number and a text.
struct Item final : Object {
    std::string getName() const override { return "test item"; }
    void getConfig(message& out, std::uint32_t) const override {
        out.insert_u32(1, number);
        out.insert_string(2, text);
    }
    void setConfig(const message& in, std::uint32_t) override {
        number = in.get_u32(1, number);
        text = in.get_string(2, text);
    }
    bool isStorable() const override { return number != 99; }
    bool needNotify() const override { return number != 98; }

    std::uint32_t number = 0;
    std::string text = "none";
};

/// Notes what its hooks see, and answers as the test wants.
class Items final : public Map<Item> {
public:
    using Map::forEach;
    using Map::Map;

    std::string seen;
    message verdict;
    std::function<void()> then;
    std::function<message(const Item& loaded)> onLoad;

private:
    message answer() {
        if (then) then();
        return verdict;
    }
    message add(Item* item) override {
        seen += "add " + std::to_string(item->id) + " " + item->text + ";";
        return answer();
    }
    message set(Item* old, Item* changed) override {
        seen += "set " + std::to_string(changed->id) + " " + old->text + ">" + changed->text + ";";
        return answer();
    }
    message load(Item* item) override { return onLoad ? onLoad(*item) : message(); }
    message remove(Item* item) override {
        seen += "remove " + std::to_string(item->id) + " " + item->text + ";";
        return answer();
    }
};

/// A map whose hooks were left as they are.
class Plain final : public Map<Item> {
public:
    using Map::Map;
};

message fields(std::uint32_t number, const std::string& text) {
    message content;
    content.insert_u32(1, number);
    content.insert_string(2, text);
    return content;
}

message withId(std::uint32_t id, const message& values = {}) {
    message content;
    content.insert_u32(field::objectId, id);
    for (const message::Field& field : values.fields()) content.insert(field);
    return content;
}

template <typename M>
class MapFixture : public ::testing::Test {
protected:
    MapFixture() { loop.looper.addHandler(0, &map); }

    message add(std::uint32_t number, const std::string& text) {
        return loop.request(command::addObject, fields(number, text));
    }
    message get(std::uint32_t id) { return loop.request(command::getObject, withId(id)); }
    message change(std::uint32_t id, const message& values) {
        return loop.request(command::setObject, withId(id, values));
    }
    message drop(std::uint32_t id) { return loop.request(command::removeObject, withId(id)); }
    std::uint32_t count() { return loop.request(command::getCount, {}).get_u32(0xFE000F); }
    /// What a new start would find in the store.
    std::map<std::uint32_t, message> stored() const { return Store(folder.file("items"), 1).all(); }
    /// Forgets the traffic so far.
    void forget() {
        loop.bus.posted.clear();
        loop.bus.requests.clear();
        map.seen.clear();
    }

    tk::testing::Folder folder;
    tk::testing::TestLoop loop;
    M map{folder.file("items"), 1, 0xFFFFFFFE};
};

class MapTest : public MapFixture<Items> {};
class PlainMapTest : public MapFixture<Plain> {};

TEST_F(PlainMapTest, HooksRefuseByDefaultWithoutAText) {
    EXPECT_EQ(add(1, "one"), errorMsg(0xFE0003, ""));
    EXPECT_EQ(count(), 0U);
    ASSERT_TRUE(Store(folder.file("items"), 1).set(1, fields(1, "one")).isOk());
    Plain loaded(folder.file("items"), 1, 0xFFFFFFFE);
    loaded.init();
    loop.looper.addHandler(0, &loaded);
    EXPECT_EQ(change(1, fields(2, "two")), errorMsg(0xFE0003, ""));
    EXPECT_EQ(drop(1), errorMsg(0xFE0003, ""));
    EXPECT_EQ(get(1), withId(1, fields(1, "one")));
    EXPECT_EQ(stored().at(1), fields(1, "one"));
}

TEST_F(MapTest, ObjectThatIsRefusedWhenItIsLoadedIsDroppedWithALogLine) {
    {
        Store store(folder.file("items"), 1);
        for (const std::uint32_t id : {3U, 4U, 9U}) ASSERT_TRUE(store.set(id, fields(id, "stored")).isOk());
    }
    Items loaded(folder.file("items"), 1, 0xFFFFFFFE);
    loaded.onLoad = [](const Item& item) {
        return item.id == 4 ? errorMsg(error::exists, "there already") : message();
    };
    const tk::testing::CapturedOutput output;
    loaded.init();
    EXPECT_EQ(output.text(), "test item 4 dropped: there already\n");
    EXPECT_EQ(loaded.getObjectCount().get_u32(0xFE000F), 2U);
    EXPECT_FALSE(loaded.isAllocID(4));
    EXPECT_EQ(stored(),
              (std::map<std::uint32_t, message>{{3, fields(3, "stored")}, {9, fields(9, "stored")}}));
    EXPECT_EQ(loaded.seen, "");
}

TEST_F(MapTest, AddsAnObjectAndRepliesWithItsId) {
    EXPECT_EQ(add(5, "five"), withId(1));
    EXPECT_EQ(add(6, "six"), withId(2));
    EXPECT_EQ(map.seen, "add 4294967295 five;add 4294967295 six;");
    EXPECT_EQ(get(1), withId(1, fields(5, "five")));
    EXPECT_EQ(get(2), withId(2, fields(6, "six")));
    EXPECT_EQ(count(), 2U);
}

TEST_F(MapTest, AddedObjectsStartFromTheirDefaults) {
    message partial;
    partial.insert_u32(1, 5);
    (void)loop.request(command::addObject, partial);
    EXPECT_EQ(get(1), withId(1, fields(5, "none")));
}

TEST_F(MapTest, SetChangesTheFieldsThatAreThere) {
    (void)add(5, "five");
    message partial;
    partial.insert_string(2, "FIVE");
    EXPECT_TRUE(change(1, partial).empty());
    EXPECT_EQ(get(1), withId(1, fields(5, "FIVE")));
    EXPECT_EQ(stored().at(1), fields(5, "FIVE"));
    EXPECT_EQ(map.seen, "add 4294967295 five;set 1 five>FIVE;");
}

TEST_F(MapTest, RemoveDropsTheObjectAndItsEntry) {
    (void)add(5, "five");
    (void)add(6, "six");
    EXPECT_TRUE(drop(1).empty());
    EXPECT_EQ(get(1), errorMsg(0xFE0004, "no such object"));
    EXPECT_EQ(count(), 1U);
    EXPECT_EQ(stored(), (std::map<std::uint32_t, message>{{2, fields(6, "six")}}));
    EXPECT_FALSE(map.isAllocID(1));
}

TEST_F(MapTest, UnknownObjectsAreAnErrorAndNoHookHearsOfThem) {
    EXPECT_EQ(get(7), errorMsg(0xFE0004, "no such object"));
    EXPECT_EQ(change(7, fields(1, "x")), errorMsg(0xFE0004, "no such object"));
    EXPECT_EQ(drop(7), errorMsg(0xFE0004, "no such object"));
    EXPECT_EQ(loop.request(command::removeObject, {}), errorMsg(0xFE0004, "no such object"));
    EXPECT_EQ(map.seen, "");
}

TEST_F(MapTest, GetAllListsTheObjectsById) {
    (void)add(5, "five");
    (void)add(6, "six");
    message expected;
    expected.insert_message_array(0xFE0002, {withId(1, fields(5, "five")), withId(2, fields(6, "six"))});
    EXPECT_EQ(loop.request(command::getAll, {}), expected);
}

TEST_F(MapTest, GetAllOfAnEmptyMapHasAnEmptyList) {
    message expected;
    expected.insert_message_array(0xFE0002, {});
    EXPECT_EQ(loop.request(command::getAll, {}), expected);
}

TEST_F(MapTest, GetAllComesInPagesOfAThousandAndTwentyFour) {
    for (std::uint32_t number = 0; number < 1030; ++number)
        (void)add(99, "");  // not stored: only a list here
    const message page = loop.request(command::getAll, {});
    EXPECT_EQ(page.size_message_array(0xFE0002), 1024U);
    EXPECT_EQ(page.get_u32(0xFE0003), 1025U);
    message rest;
    rest.insert_u32(0xFE0003, 1025);
    const message last = loop.request(command::getAll, rest);
    EXPECT_EQ(last.size_message_array(0xFE0002), 6U);
    EXPECT_FALSE(last.has(0xFE0003));
}

TEST_F(MapTest, RefusedCommandsLeaveMapAndStoreUnchanged) {
    (void)add(5, "five");
    const std::string before = folder.read("items");
    map.verdict = errorMsg(0xFE0009, "Interface already added");
    forget();
    EXPECT_EQ(add(6, "six"), map.verdict);
    EXPECT_EQ(change(1, fields(7, "seven")), map.verdict);
    EXPECT_EQ(drop(1), map.verdict);
    EXPECT_EQ(map.seen, "add 4294967295 six;set 1 five>seven;remove 1 five;");
    EXPECT_EQ(count(), 1U);
    EXPECT_EQ(get(1), withId(1, fields(5, "five")));
    EXPECT_EQ(folder.read("items"), before);
    EXPECT_FALSE(folder.has("items.new"));
}

TEST_F(MapTest, RefusedCommandsTellNobodyAndRecordNothing) {
    (void)add(5, "five");
    map.verdict = errorMsg(error::refused, "no");
    forget();
    (void)add(6, "six");
    (void)change(1, fields(7, "seven"));
    (void)drop(1);
    EXPECT_TRUE(loop.bus.requests.empty());
    for (const message& posted : loop.bus.posted) EXPECT_EQ(kindOf(posted), Kind::error);
    EXPECT_EQ(loop.bus.posted.size(), 3U);
}

TEST_F(MapTest, FailedWriteRefusesBeforeTheHookHearsOfIt) {
    (void)add(5, "five");
    forget();
    std::filesystem::create_directory(folder.file("items.new"));
    const message expected = errorMsg(error::failed, folder.file("items") + ": File exists");
    EXPECT_EQ(add(6, "six"), expected);
    EXPECT_EQ(change(1, fields(7, "seven")), expected);
    EXPECT_EQ(drop(1), expected);
    EXPECT_EQ(map.seen, "");
    EXPECT_EQ(get(1), withId(1, fields(5, "five")));
    EXPECT_EQ(count(), 1U);
    EXPECT_TRUE(loop.bus.requests.empty());
}

TEST_F(MapTest, ChangeThatCannotBePutInPlaceIsTakenBackThroughTheHooks) {
    (void)add(5, "five");
    const std::string before = folder.read("items");
    forget();
    map.then = [this] { std::filesystem::remove(folder.file("items.new")); };  // after it was staged
    const message expected = errorMsg(error::failed, folder.file("items") + ": No such file or directory");
    EXPECT_EQ(add(6, "six"), expected);
    EXPECT_EQ(map.seen, "add 4294967295 six;remove 4294967295 six;");
    forget();
    EXPECT_EQ(change(1, fields(7, "seven")), expected);
    EXPECT_EQ(map.seen, "set 1 five>seven;set 1 seven>five;");
    forget();
    EXPECT_EQ(drop(1), expected);
    EXPECT_EQ(map.seen, "remove 1 five;add 1 five;");
    EXPECT_EQ(get(1), withId(1, fields(5, "five")));
    EXPECT_EQ(count(), 1U);
    EXPECT_EQ(folder.read("items"), before);
    EXPECT_TRUE(loop.bus.requests.empty());
}

TEST_F(MapTest, InitLoadsTheObjectsWithoutAskingTheHooks) {
    (void)add(5, "five");
    (void)add(6, "six");
    (void)drop(1);
    Items reloaded(folder.file("items"), 1, 0xFFFFFFFE);
    reloaded.init();
    loop.looper.addHandler(0, &reloaded);
    EXPECT_EQ(get(2), withId(2, fields(6, "six")));
    EXPECT_EQ(count(), 1U);
    EXPECT_EQ(reloaded.seen, "");
    EXPECT_EQ(add(7, "seven"), withId(3));
}

TEST_F(MapTest, ForEachVisitsTheObjectsById) {
    (void)add(5, "five");
    (void)add(6, "six");
    std::string visited;
    map.forEach([&](const Item& item) { visited += std::to_string(item.id) + item.text + ";"; });
    EXPECT_EQ(visited, "1five;2six;");
}

TEST_F(MapTest, ObjectsThatAreNotStorableStayOutOfTheStoreAndTheHistory) {
    EXPECT_EQ(add(99, "volatile"), withId(1));
    EXPECT_FALSE(folder.has("items"));
    EXPECT_TRUE(loop.bus.requests.empty());
    EXPECT_EQ(count(), 1U);
}

TEST_F(MapTest, ObjectsThatNeedNoNotificationAreNotTold) {
    (void)add(98, "quiet");
    ASSERT_EQ(loop.bus.posted.size(), 1U);
    EXPECT_EQ(kindOf(loop.bus.posted[0]), Kind::reply);
}

TEST_F(MapTest, RefusedAddsUseUpNoId) {
    Items small(folder.file("small"), 1, 2);
    loop.looper.addHandler(0, &small);
    small.verdict = errorMsg(error::refused, "no");
    for (int refusals = 0; refusals < 5; ++refusals) EXPECT_EQ(add(5, "five"), small.verdict);
    EXPECT_FALSE(small.isAllocID(1));
    EXPECT_FALSE(small.isAllocID(2));
    small.verdict = {};
    EXPECT_TRUE(add(5, "five").has(field::objectId));
    EXPECT_TRUE(add(6, "six").has(field::objectId));
}

TEST_F(MapTest, HasNoIdLeftWhenTheRangeIsFull) {
    Items small(folder.file("small"), 1, 2);
    loop.looper.addHandler(0, &small);
    (void)add(5, "five");
    (void)add(6, "six");
    EXPECT_EQ(add(7, "seven"), errorMsg(error::busy, "no id is free"));
    EXPECT_TRUE(drop(1).empty());
    EXPECT_EQ(add(7, "seven"), withId(1));
}

/// What the map tells of each change: the notification, and the record for the history.
class MapChange : public MapTest {
protected:
    void expectTold(const message& record) {
        message expected;
        expected.insert_message_array(0xFE0002, {record});
        expected.insert_u32_array(0xFF0002, {80, 0});
        expected.insert_u32(0xFF0005, 4);
        expected.insert_u32(0xFF0007, 0xFE000B);
        ASSERT_EQ(loop.bus.posted.size(), 2U);  // the notification, then the reply
        EXPECT_EQ(loop.bus.posted[0], expected);
    }
    void expectUndo(const message& request, std::uint32_t inverseCommand, const message& inverse,
                    const std::string& description) {
        message undo;
        undo.insert_u32(0xFF0007, inverseCommand);
        for (const message::Field& field : inverse.fields()) undo.insert(field);
        ASSERT_EQ(loop.bus.requests.size(), 1U);
        const message& record = loop.bus.requests[0].content;
        EXPECT_EQ(loop.bus.requests[0].command, 0xFE0005U);
        EXPECT_EQ(record.get_u32_array(0xFF0001), Path{24});
        ASSERT_EQ(record.size_message_array(1), 1U);
        EXPECT_EQ(withoutRouting(record.get_message_array(1)[0]), request);
        EXPECT_EQ(record.get_message_array(2), std::vector<message>{undo});
        EXPECT_EQ(record.get_string(3), description);
    }
};

TEST_F(MapChange, OfAnAddedObjectIsToldAndUndoneByRemoval) {
    (void)add(5, "five");
    expectTold(withId(1, fields(5, "five")));
    expectUndo(fields(5, "five"), 0xFE0006, withId(1), "test item added");
}

TEST_F(MapChange, OfAChangedObjectIsToldAndUndoneByItsFormerValues) {
    (void)add(5, "five");
    forget();
    (void)change(1, fields(6, "six"));
    expectTold(withId(1, fields(6, "six")));
    expectUndo(withId(1, fields(6, "six")), 0xFE0003, withId(1, fields(5, "five")), "test item changed");
}

TEST_F(MapChange, OfARemovedObjectIsToldAsDeletedAndUndoneByAddingIt) {
    (void)add(5, "five");
    forget();
    (void)drop(1);
    message record = withId(1, fields(5, "five"));
    record.insert_u32(0xFE0013, 1);
    expectTold(record);
    expectUndo(withId(1), 0xFE0005, fields(5, "five"), "test item removed");
}

}  // namespace
}  // namespace tk
